// Exports of the WAVE file reader and writer. These objects carry no
// processor tag: a null handle is the only one that can be refused.
#include "dsp.h"

#include "wavefile/wavefile_reader.h"
#include "wavefile/wavefile_writer.h"

#include <new>

namespace {

dsp::WavefileReader* asReader(void* handle) {
    return static_cast<dsp::WavefileReader*>(handle);
}

dsp::WavefileWriter* asWriter(void* handle) {
    return static_cast<dsp::WavefileWriter*>(handle);
}

} // namespace

extern "C" {

DSP_API void* initWavefileIn(const char* path, uint32_t frames) {
    dsp::WavefileReader* reader = new (std::nothrow) dsp::WavefileReader;
    if (reader == nullptr) {
        return nullptr;
    }
    // A failed open still hands out the reader; its reads then return 0.
    reader->open(path, frames);
    return reader;
}

DSP_API int32_t readWavefileIn(void* handle, uint8_t* buffer, uint32_t frames) {
    return handle != nullptr ? asReader(handle)->read(buffer, frames) : 0;
}

DSP_API int32_t seekWavefileIn(void* handle, int32_t bytes, uint32_t mode) {
    return handle != nullptr ? asReader(handle)->seek(bytes, mode) : 0;
}

DSP_API int32_t timeSeekWavefileIn(void* handle, float seconds, uint32_t mode) {
    return handle != nullptr ? asReader(handle)->timeSeek(seconds, mode) : 0;
}

DSP_API uint8_t* bufSizeExtendWavefileIn(void* handle, uint32_t frames) {
    return handle != nullptr ? asReader(handle)->extendBuffer(frames) : nullptr;
}

DSP_API WavefileHeader* getHeaderWavefileIn(void* handle) {
    return handle != nullptr ? asReader(handle)->header() : nullptr;
}

DSP_API WavefileFormat* getFormatWavefileIn(void* handle) {
    return handle != nullptr ? asReader(handle)->format() : nullptr;
}

DSP_API void termWavefileIn(void* handle) {
    delete asReader(handle);
}

DSP_API void* initWavefileOut(const char* path, const WavefileFormat* format) {
    dsp::WavefileWriter* writer = new (std::nothrow) dsp::WavefileWriter;
    if (writer == nullptr) {
        return nullptr;
    }
    writer->open(path, format);
    return writer;
}

DSP_API int32_t writeWavefileOut(void* handle, const void* data, int32_t bytes) {
    return handle != nullptr ? asWriter(handle)->write(data, bytes) : 0;
}

DSP_API uint32_t flushWavefileOut(void* handle) {
    return handle != nullptr ? asWriter(handle)->flush() : 0;
}

DSP_API WavefileFormat* getFormatWavefileOut(void* handle) {
    return handle != nullptr ? asWriter(handle)->format() : nullptr;
}

DSP_API uint32_t termWavefileOut(void* handle) {
    if (handle == nullptr) {
        return 0;
    }
    dsp::WavefileWriter* writer = asWriter(handle);
    uint32_t dataBytes = writer->close();
    delete writer;
    return dataBytes;
}

} // extern "C"
