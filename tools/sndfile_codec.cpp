#include "sndfile_codec.h"

#include "cli_error.h"

#include <sndfile.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace cli {

namespace {

// The virtual I/O of libsndfile on a ByteSource or a ByteSink.
struct Io {
    ByteSource* source = nullptr;
    ByteSink* sink = nullptr;
    uint64_t size = 0; // a source's size; a sink's end so far
    std::string error; // the first failure of the stream (no exception crosses libsndfile)
};

sf_count_t ioLength(void* user) {
    return static_cast<sf_count_t>(static_cast<Io*>(user)->size);
}

sf_count_t ioTell(void* user) {
    Io* io = static_cast<Io*>(user);
    return static_cast<sf_count_t>(io->source != nullptr ? io->source->position()
                                                         : io->sink->position());
}

sf_count_t ioSeek(sf_count_t offset, int whence, void* user) {
    Io* io = static_cast<Io*>(user);
    sf_count_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? ioTell(user) : ioLength(user);
    sf_count_t to = base + offset;
    if (to < 0) {
        return -1;
    }
    try {
        if (io->source != nullptr) {
            io->source->seek(static_cast<uint64_t>(to));
        } else {
            io->sink->seek(static_cast<uint64_t>(to));
        }
    } catch (const Failure&) {
        return -1;
    }
    return to;
}

sf_count_t ioRead(void* data, sf_count_t bytes, void* user) {
    Io* io = static_cast<Io*>(user);
    if (io->source == nullptr) {
        return 0;
    }
    try {
        return static_cast<sf_count_t>(io->source->read(data, static_cast<size_t>(bytes)));
    } catch (const Failure& e) {
        io->error = e.what();
        return 0;
    }
}

sf_count_t ioWrite(const void* data, sf_count_t bytes, void* user) {
    Io* io = static_cast<Io*>(user);
    if (io->sink == nullptr) {
        return 0;
    }
    try {
        io->sink->write(data, static_cast<size_t>(bytes));
    } catch (const Failure& e) {
        io->error = e.what();
        return 0;
    }
    io->size = std::max(io->size, io->sink->position());
    return bytes;
}

SF_VIRTUAL_IO virtualIo() {
    SF_VIRTUAL_IO v{};
    v.get_filelen = ioLength;
    v.seek = ioSeek;
    v.read = ioRead;
    v.write = ioWrite;
    v.tell = ioTell;
    return v;
}

// The packed sample types and libsndfile's calls on them: 8 and 16-bit
// through short, 24 and 32-bit through int (left-aligned), floats as they are.
enum class Call { kShort, kInt, kFloat, kDouble };

Call callFor(SampleType t) {
    switch (t) {
    case SampleType::kUint8:
    case SampleType::kInt16:
        return Call::kShort;
    case SampleType::kInt24:
    case SampleType::kInt32:
        return Call::kInt;
    case SampleType::kFloat32:
        return Call::kFloat;
    case SampleType::kFloat64:
        return Call::kDouble;
    }
    return Call::kFloat;
}

// Between libsndfile's left-aligned int/short values and packed samples.
void pack(SampleType t, const void* from, uint8_t* to, size_t count) {
    const uint32_t width = bytesPerSample(t);
    for (size_t i = 0; i < count; ++i) {
        uint32_t u = 0;
        switch (t) {
        case SampleType::kUint8:
            u = static_cast<uint32_t>((static_cast<const int16_t*>(from)[i] >> 8) + 128);
            break;
        case SampleType::kInt16:
            u = static_cast<uint16_t>(static_cast<const int16_t*>(from)[i]);
            break;
        case SampleType::kInt24:
            u = static_cast<uint32_t>(static_cast<const int32_t*>(from)[i] >> 8);
            break;
        case SampleType::kInt32:
            u = static_cast<uint32_t>(static_cast<const int32_t*>(from)[i]);
            break;
        case SampleType::kFloat32:
            std::memcpy(&u, static_cast<const float*>(from) + i, 4);
            break;
        case SampleType::kFloat64: {
            uint64_t w;
            std::memcpy(&w, static_cast<const double*>(from) + i, 8);
            for (int b = 0; b < 8; ++b) {
                to[8 * i + b] = static_cast<uint8_t>(w >> (8 * b));
            }
            continue;
        }
        }
        for (uint32_t b = 0; b < width; ++b) {
            to[width * i + b] = static_cast<uint8_t>(u >> (8 * b));
        }
    }
}

void unpack(SampleType t, const uint8_t* from, void* to, size_t count) {
    const uint32_t width = bytesPerSample(t);
    for (size_t i = 0; i < count; ++i) {
        uint64_t u = 0;
        for (uint32_t b = width; b-- > 0;) {
            u = (u << 8) | from[width * i + b];
        }
        switch (t) {
        case SampleType::kUint8:
            static_cast<int16_t*>(to)[i] = static_cast<int16_t>((static_cast<int>(u) - 128) * 256);
            break;
        case SampleType::kInt16:
            static_cast<int16_t*>(to)[i] = static_cast<int16_t>(u);
            break;
        case SampleType::kInt24:
            static_cast<int32_t*>(to)[i] = static_cast<int32_t>(static_cast<uint32_t>(u) << 8);
            break;
        case SampleType::kInt32:
            static_cast<int32_t*>(to)[i] = static_cast<int32_t>(static_cast<uint32_t>(u));
            break;
        case SampleType::kFloat32: {
            uint32_t v = static_cast<uint32_t>(u);
            std::memcpy(static_cast<float*>(to) + i, &v, 4);
            break;
        }
        case SampleType::kFloat64:
            std::memcpy(static_cast<double*>(to) + i, &u, 8);
            break;
        }
    }
}

size_t callBytes(Call c) {
    return c == Call::kShort ? 2 : c == Call::kDouble ? 8 : 4;
}

class SndfileReader : public AudioReader {
public:
    explicit SndfileReader(FileSource& source) : name_(source.name()) {
        io_.source = &source;
        io_.size = source.size();
        source.seek(0);
        SF_VIRTUAL_IO v = virtualIo();
        file_ = sf_open_virtual(&v, SFM_READ, &info_, &io_);
        if (file_ == nullptr) {
            throw Failure("'" + name_ + "': " + sf_strerror(nullptr));
        }
        try {
            setUp();
        } catch (...) {
            sf_close(file_);
            throw;
        }
    }
    ~SndfileReader() override { sf_close(file_); }
    SndfileReader(const SndfileReader&) = delete;
    SndfileReader& operator=(const SndfileReader&) = delete;

    const StreamFormat& format() const override { return format_; }
    bool lengthKnown() const override { return info_.frames > 0 && info_.frames != SF_COUNT_MAX; }
    uint64_t totalFrames() const override {
        return lengthKnown() ? static_cast<uint64_t>(info_.frames) : 0;
    }
    uint32_t read(uint8_t* dst, uint32_t frames) override {
        const size_t samples = static_cast<size_t>(frames) * format_.channels;
        if (scratch_.size() < samples * callBytes(call_)) {
            scratch_.resize(samples * callBytes(call_));
        }
        sf_count_t n = 0;
        switch (call_) {
        case Call::kShort:
            n = sf_readf_short(file_, reinterpret_cast<short*>(scratch_.data()), frames);
            break;
        case Call::kInt:
            n = sf_readf_int(file_, reinterpret_cast<int*>(scratch_.data()), frames);
            break;
        case Call::kFloat:
            n = sf_readf_float(file_, reinterpret_cast<float*>(scratch_.data()), frames);
            break;
        case Call::kDouble:
            n = sf_readf_double(file_, reinterpret_cast<double*>(scratch_.data()), frames);
            break;
        }
        if (!io_.error.empty()) {
            throw Failure(io_.error);
        }
        if (n < 0) {
            n = 0;
        }
        pack(format_.type, scratch_.data(), dst, static_cast<size_t>(n) * format_.channels);
        return static_cast<uint32_t>(n);
    }
    void seekFrame(uint64_t frame) override {
        if (sf_seek(file_, static_cast<sf_count_t>(frame), SEEK_SET) < 0) {
            throw Failure("cannot seek in '" + name_ + "'");
        }
    }
    const std::vector<ExtraChunk>& extraChunks() const override { return none_; }

private:
    void setUp() {
        if (info_.channels > 2) {
            throw Failure("'" + name_ + "' has " + std::to_string(info_.channels) +
                          " channels; the processors take mono or stereo (mix it down or split "
                          "it first)");
        }
        if (info_.channels < 1 || info_.samplerate < 1) {
            throw Failure("'" + name_ + "': " + std::to_string(info_.channels) + " channels at " +
                          std::to_string(info_.samplerate) + " Hz");
        }
        const int major = info_.format & SF_FORMAT_TYPEMASK;
        const int sub = info_.format & SF_FORMAT_SUBMASK;
        format_.container =
            major == SF_FORMAT_FLAC ? Container::kFlac
            : major == SF_FORMAT_OGG
                ? (sub == SF_FORMAT_OPUS ? Container::kOggOpus : Container::kOggVorbis)
                : Container::kAiff;
        format_.rate = static_cast<uint32_t>(info_.samplerate);
        format_.channels = static_cast<uint32_t>(info_.channels);
        switch (info_.format & SF_FORMAT_SUBMASK) {
        case SF_FORMAT_PCM_S8:
        case SF_FORMAT_PCM_U8:
            format_.type = SampleType::kUint8;
            break;
        case SF_FORMAT_PCM_16:
            format_.type = SampleType::kInt16;
            break;
        case SF_FORMAT_PCM_24:
            format_.type = SampleType::kInt24;
            break;
        case SF_FORMAT_PCM_32:
            format_.type = SampleType::kInt32;
            break;
        case SF_FORMAT_DOUBLE:
            format_.type = SampleType::kFloat64;
            break;
        default: // float, and the lossy codecs, decoded to full scale 1.0
            format_.type = SampleType::kFloat32;
            sf_command(file_, SFC_SET_NORM_FLOAT, nullptr, SF_TRUE);
            break;
        }
        call_ = callFor(format_.type);
    }

    std::string name_;
    Io io_;
    SF_INFO info_{};
    SNDFILE* file_ = nullptr;
    StreamFormat format_;
    Call call_ = Call::kFloat;
    std::vector<uint8_t> scratch_;
    std::vector<ExtraChunk> none_;
};

class SndfileWriter : public AudioWriter {
public:
    SndfileWriter(Container container, ByteSink& sink, const StreamFormat& format)
        : format_(format), call_(callFor(format.type)) {
        io_.sink = &sink;
        io_.size = sink.position();
        info_.samplerate = static_cast<int>(format.rate);
        info_.channels = static_cast<int>(format.channels);
        info_.format = majorAndSub(container, format.type);
        if (sf_format_check(&info_) == 0) {
            throw Failure("'" + sink.name() + "': " + containerName(container) + " cannot hold " +
                          sampleTypeName(format.type) + " at " + std::to_string(format.rate) +
                          " Hz" +
                          (container == Container::kOggOpus
                               ? " (Opus takes 8000, 12000, 16000, 24000 or 48000 Hz)"
                               : ""));
        }
        SF_VIRTUAL_IO v = virtualIo();
        file_ = sf_open_virtual(&v, SFM_WRITE, &info_, &io_);
        if (file_ == nullptr) {
            throw Failure("cannot write '" + sink.name() + "': " + sf_strerror(nullptr));
        }
        name_ = sink.name();
    }
    ~SndfileWriter() override {
        if (file_ != nullptr) {
            sf_close(file_);
        }
    }
    SndfileWriter(const SndfileWriter&) = delete;
    SndfileWriter& operator=(const SndfileWriter&) = delete;

    void write(const uint8_t* src, uint32_t frames) override {
        const size_t samples = static_cast<size_t>(frames) * format_.channels;
        if (scratch_.size() < samples * callBytes(call_)) {
            scratch_.resize(samples * callBytes(call_));
        }
        unpack(format_.type, src, scratch_.data(), samples);
        sf_count_t n = 0;
        switch (call_) {
        case Call::kShort:
            n = sf_writef_short(file_, reinterpret_cast<short*>(scratch_.data()), frames);
            break;
        case Call::kInt:
            n = sf_writef_int(file_, reinterpret_cast<int*>(scratch_.data()), frames);
            break;
        case Call::kFloat:
            n = sf_writef_float(file_, reinterpret_cast<float*>(scratch_.data()), frames);
            break;
        case Call::kDouble:
            n = sf_writef_double(file_, reinterpret_cast<double*>(scratch_.data()), frames);
            break;
        }
        if (!io_.error.empty()) {
            throw Failure(io_.error);
        }
        if (n != static_cast<sf_count_t>(frames)) {
            throw Failure("cannot write '" + name_ + "': " + sf_strerror(file_));
        }
    }
    void finish(const std::vector<ExtraChunk>&) override {
        const int status = sf_close(file_);
        file_ = nullptr;
        if (!io_.error.empty()) {
            throw Failure(io_.error);
        }
        if (status != 0) {
            throw Failure("cannot finish '" + name_ + "': " + sf_error_number(status));
        }
        if (io_.sink->seekable()) {
            io_.sink->seek(io_.size);
        }
    }

private:
    static int majorAndSub(Container c, SampleType t) {
        switch (c) {
        case Container::kOggVorbis:
            return SF_FORMAT_OGG | SF_FORMAT_VORBIS;
        case Container::kOggOpus:
            return SF_FORMAT_OGG | SF_FORMAT_OPUS;
        default:
            break;
        }
        const int major = c == Container::kFlac ? SF_FORMAT_FLAC : SF_FORMAT_AIFF;
        switch (t) {
        case SampleType::kUint8:
            return major | SF_FORMAT_PCM_S8;
        case SampleType::kInt16:
            return major | SF_FORMAT_PCM_16;
        case SampleType::kInt24:
            return major | SF_FORMAT_PCM_24;
        case SampleType::kInt32:
            return major | SF_FORMAT_PCM_32;
        case SampleType::kFloat32:
            return major | SF_FORMAT_FLOAT;
        case SampleType::kFloat64:
            return major | SF_FORMAT_DOUBLE;
        }
        return major;
    }

    StreamFormat format_;
    Call call_;
    std::string name_;
    Io io_;
    SF_INFO info_{};
    SNDFILE* file_ = nullptr;
    std::vector<uint8_t> scratch_;
};

} // namespace

std::unique_ptr<AudioReader> openSndfileReader(FileSource& source) {
    if (!source.seekable()) {
        throw Failure("'" + source.name() +
                      "': only WAVE is read from a stream; give other formats as a file");
    }
    return std::make_unique<SndfileReader>(source);
}

std::unique_ptr<AudioWriter> openSndfileWriter(Container container, ByteSink& sink,
                                               const StreamFormat& format) {
    return std::make_unique<SndfileWriter>(container, sink, format);
}

} // namespace cli
