// The libsndfile backend (built with DSP_HAVE_SNDFILE): FLAC, Ogg Vorbis,
// Ogg Opus and AIFF behind the same reader and writer interface as the WAVE
// codec, on the tool's byte streams.
#pragma once

#include "audio_codec.h"
#include "file_source.h"

#include <memory>

namespace cli {

// A reader for a file libsndfile recognises; a stream (a pipe) is refused.
std::unique_ptr<AudioReader> openSndfileReader(FileSource& source);

// A writer of the container (not WAVE) on the sink.
std::unique_ptr<AudioWriter> openSndfileWriter(Container container, ByteSink& sink,
                                               const StreamFormat& format);

} // namespace cli
