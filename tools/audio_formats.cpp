#include "audio_formats.h"

#include "cli_error.h"
#include "wave_reader.h"
#include "wave_writer.h"

#if defined(DSP_HAVE_SNDFILE)
#include "sndfile_codec.h"
#endif

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

namespace cli {

const char* containerName(Container c) {
    switch (c) {
    case Container::kWave:
        return "WAVE";
    case Container::kFlac:
        return "FLAC";
    case Container::kOggVorbis:
        return "Ogg Vorbis";
    case Container::kOggOpus:
        return "Ogg Opus";
    case Container::kAiff:
        return "AIFF";
    }
    return "?";
}

bool haveSndfile() {
#if defined(DSP_HAVE_SNDFILE)
    return true;
#else
    return false;
#endif
}

namespace {

#if !defined(DSP_HAVE_SNDFILE)
[[noreturn]] void needSndfile(const std::string& name, const char* what) {
    throw Failure("'" + name + "': " + what +
                  " needs libsndfile, which this dsp was built without");
}
#endif

std::string headText(const std::vector<uint8_t>& head) {
    std::string s;
    for (size_t i = 0; i < head.size() && i < 4; ++i) {
        char text[4];
        std::snprintf(text, sizeof text, "%s%02X", i == 0 ? "" : " ", head[i]);
        s += text;
    }
    return s.empty() ? "it is empty" : "it begins with " + s;
}

} // namespace

std::unique_ptr<AudioReader> openReader(FileSource& source, std::vector<std::string>& warnings) {
    const std::vector<uint8_t>& h = source.head();
    auto starts = [&](const char* id, size_t at = 0) {
        return h.size() >= at + 4 && std::memcmp(h.data() + at, id, 4) == 0;
    };
    if ((starts("RIFF") || starts("RF64")) && starts("WAVE", 8)) {
        auto reader = std::make_unique<WaveReader>(source);
        warnings.insert(warnings.end(), reader->warnings().begin(), reader->warnings().end());
        return reader;
    }
    const char* other = starts("fLaC")   ? "FLAC"
                        : starts("OggS") ? "Ogg Vorbis or Opus"
                        : starts("FORM") && (starts("AIFF", 8) || starts("AIFC", 8)) ? "AIFF"
                                                                                     : nullptr;
    if (other == nullptr) {
        throw Failure("'" + source.name() + "' is not a RIFF WAVE file (" + headText(h) + ")");
    }
#if defined(DSP_HAVE_SNDFILE)
    return openSndfileReader(source);
#else
    needSndfile(source.name(), other);
#endif
}

Container containerForPath(const std::string& path) {
    const size_t dot = path.find_last_of('.');
    const size_t slash = path.find_last_of("/\\");
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) {
        return Container::kWave;
    }
    std::string ext = path.substr(dot + 1);
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (ext == "flac") {
        return Container::kFlac;
    }
    if (ext == "ogg" || ext == "oga") {
        return Container::kOggVorbis;
    }
    if (ext == "opus") {
        return Container::kOggOpus;
    }
    if (ext == "aif" || ext == "aiff" || ext == "aifc") {
        return Container::kAiff;
    }
    return Container::kWave;
}

SampleType storedType(Container container, SampleType wished, bool explicitType,
                      const std::string& path) {
    switch (container) {
    case Container::kFlac:
        if (bitsPerSample(wished) <= 24 && !isFloat(wished)) {
            return wished;
        }
        if (explicitType) {
            throw UsageError("'" + path + "': FLAC holds 8, 16 or 24 bits, not " +
                             sampleTypeName(wished));
        }
        return SampleType::kInt24;
    case Container::kOggVorbis:
    case Container::kOggOpus:
        return SampleType::kFloat32; // lossy: the encoder takes floats
    default:
        return wished;
    }
}

std::unique_ptr<AudioWriter> openWriter(Container container, ByteSink& sink,
                                        const StreamFormat& format,
                                        const std::vector<ExtraChunk>& extras) {
    if (container == Container::kWave) {
        return std::make_unique<WaveWriter>(sink, format, extras);
    }
#if defined(DSP_HAVE_SNDFILE)
    return openSndfileWriter(container, sink, format);
#else
    needSndfile(sink.name(), containerName(container));
#endif
}

} // namespace cli
