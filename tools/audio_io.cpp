#include "audio_io.h"

#include "audio_formats.h"
#include "cli_error.h"

#include <cmath>
#include <cstdio>

namespace cli {

AudioInput::AudioInput(const std::string& path) : path_(path), source_(path) {
    std::vector<std::string> warnings;
    reader_ = openReader(source_, warnings);
    for (const std::string& w : warnings) {
        std::fprintf(stderr, "dsp: warning: %s\n", w.c_str());
    }
}

uint32_t AudioInput::readRaw(uint8_t* dst, uint32_t frames) {
    const uint32_t n = reader_->read(dst, frames);
    position_ += n;
    return n;
}

uint32_t AudioInput::readFloat(float* dst, uint32_t frames) {
    const size_t bytes = static_cast<size_t>(frames) * stream().frameBytes();
    if (raw_.size() < bytes) {
        raw_.resize(bytes);
    }
    const uint32_t n = readRaw(raw_.data(), frames);
    decodeSamples(stream().type, raw_.data(), dst, static_cast<size_t>(n) * stream().channels);
    return n;
}

uint32_t AudioInput::readInt16(int16_t* dst, uint32_t frames) {
    const size_t samples = static_cast<size_t>(frames) * stream().channels;
    if (stream().type == SampleType::kInt16) {
        if (raw_.size() < 2 * samples) {
            raw_.resize(2 * samples);
        }
        const uint32_t n = readRaw(raw_.data(), frames);
        for (size_t i = 0; i < static_cast<size_t>(n) * stream().channels; ++i) {
            dst[i] = static_cast<int16_t>(raw_[2 * i] | (raw_[2 * i + 1] << 8));
        }
        return n;
    }
    if (floats_.size() < samples) {
        floats_.resize(samples);
    }
    const uint32_t n = readFloat(floats_.data(), frames);
    for (size_t i = 0; i < static_cast<size_t>(n) * stream().channels; ++i) {
        dst[i] = floatToInt16(floats_[i]);
    }
    return n;
}

void AudioInput::seekFrame(uint64_t frame) {
    reader_->seekFrame(frame);
    position_ = frame;
}

AudioOutput::AudioOutput(const std::string& path, const std::vector<std::string>& inputs,
                         const AudioFormat& format, const StreamFormat& input,
                         const OutputEncoding& encoding, const std::vector<ExtraChunk>& extras) {
    const Container container = containerForPath(path);
    stream_.container = container;
    stream_.rate = format.rate;
    stream_.channels = format.channels;
    stream_.type =
        storedType(container, encoding.type.value_or(input.type), encoding.type.has_value(), path);
    if (stream_.type == input.type && input.validBits != bitsPerSample(input.type)) {
        stream_.validBits = input.validBits;
    }
    const uint32_t usualMask = format.channels == 1 ? 0x4u : 0x3u; // centre; left and right
    stream_.channelMask =
        format.channels == input.channels || input.channelMask == 0 ? input.channelMask : usualMask;
    // An extensible input stays extensible where the plain header would lose
    // something (24 and 32-bit PCM are extensible by convention); otherwise
    // the plain header, which more readers take.
    stream_.extensible =
        input.extensible &&
        (stream_.type == SampleType::kInt24 || stream_.type == SampleType::kInt32 ||
         stream_.validBits != 0 || (stream_.channelMask != 0 && stream_.channelMask != usualMask));
    // Fewer bits than the input: dithered, unless turned off.
    if (encoding.dither && !isFloat(stream_.type) &&
        bitsPerSample(stream_.type) < bitsPerSample(input.type)) {
        dither_.emplace();
    }
    target_ = OutputFile::open(path, inputs);
    writer_ = openWriter(container, *target_, stream_,
                         container == Container::kWave ? extras : std::vector<ExtraChunk>{});
}

void AudioOutput::writeRaw(const uint8_t* src, uint32_t frames) {
    writer_->write(src, frames);
    frames_ += frames;
}

void AudioOutput::writeFloat(const float* src, uint32_t frames) {
    const size_t samples = static_cast<size_t>(frames) * stream_.channels;
    if (raw_.size() < samples * bytesPerSample(stream_.type)) {
        raw_.resize(samples * bytesPerSample(stream_.type));
    }
    if (!isFloat(stream_.type)) {
        for (size_t i = 0; i < samples; ++i) {
            // fmax without the library call (NaN leaves the peak as it is).
            const float a = std::fabs(src[i]);
            peak_ = a > peak_ ? a : peak_;
        }
    }
    clipped_ +=
        encodeSamples(stream_.type, src, raw_.data(), samples, dither_ ? &*dither_ : nullptr);
    writeRaw(raw_.data(), frames);
}

void AudioOutput::writeFloatBy16BitRule(const float* src, uint32_t frames, bool monoSource) {
    const uint32_t channels = stream_.channels;
    const size_t samples = static_cast<size_t>(frames) * channels;
    if (int16_.size() < samples) {
        int16_.resize(samples);
    }
    for (size_t i = 0; i < samples; ++i) {
        const float x = src[monoSource ? i - i % channels : i];
        peak_ = std::fmax(peak_, std::fabs(x));
        clipped_ += clipsInt16(x) ? 1 : 0;
        int16_[i] = floatToInt16(x);
    }
    writeInt16(int16_.data(), frames);
}

void AudioOutput::writeInt16(const int16_t* src, uint32_t frames) {
    const size_t samples = static_cast<size_t>(frames) * stream_.channels;
    if (stream_.type == SampleType::kInt16) {
        if (raw_.size() < 2 * samples) {
            raw_.resize(2 * samples);
        }
        for (size_t i = 0; i < samples; ++i) {
            raw_[2 * i] = static_cast<uint8_t>(src[i]);
            raw_[2 * i + 1] = static_cast<uint8_t>(static_cast<uint16_t>(src[i]) >> 8);
        }
        writeRaw(raw_.data(), frames);
        return;
    }
    if (floats_.size() < samples) {
        floats_.resize(samples);
    }
    for (size_t i = 0; i < samples; ++i) {
        floats_[i] = int16ToFloat(src[i]);
    }
    writeFloat(floats_.data(), frames);
}

void AudioOutput::commit(const std::vector<ExtraChunk>& trailing) {
    writer_->finish(trailing);
    target_->commit();
}

void writeWholeFile(const std::string& path, const AudioFormat& format,
                    const std::vector<int16_t>& samples, const std::vector<std::string>& inputs) {
    StreamFormat input;
    input.rate = format.rate;
    input.channels = format.channels;
    AudioOutput out(path, inputs, format, input, OutputEncoding{}, {});
    const uint32_t block = 65536;
    const uint64_t frames = samples.size() / format.channels;
    for (uint64_t at = 0; at < frames; at += block) {
        uint32_t n = static_cast<uint32_t>(frames - at < block ? frames - at : block);
        out.writeInt16(samples.data() + at * format.channels, n);
    }
    out.commit();
}

std::string streamDescription(const StreamFormat& f) {
    const bool lossy = f.container == Container::kOggVorbis || f.container == Container::kOggOpus;
    return (f.container == Container::kWave ? "" : std::string(containerName(f.container)) + ", ") +
           (lossy ? "" : sampleTypeName(f.type) + ", ") + std::to_string(f.rate) + " Hz, " +
           (f.channels == 2 ? "stereo" : "mono");
}

} // namespace cli
