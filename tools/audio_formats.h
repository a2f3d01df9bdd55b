// Choosing a codec: inputs by their content, outputs by their file
// extension. WAVE always goes through the tool's own codec; FLAC, Ogg
// Vorbis, Ogg Opus and AIFF through libsndfile when the tool was built
// with it, and are refused by name otherwise.
#pragma once

#include "audio_codec.h"
#include "file_source.h"

#include <memory>
#include <string>
#include <vector>

namespace cli {

// Whether this build reads and writes the containers other than WAVE.
bool haveSndfile();

// A reader for the source, chosen by its first bytes (source.head()).
// Warnings (dropped chunks) are added to `warnings`.
std::unique_ptr<AudioReader> openReader(FileSource& source, std::vector<std::string>& warnings);

// The container for an output path by its extension (.flac, .ogg/.oga,
// .opus, .aif/.aiff/.aifc); WAVE for any other name and for "-".
Container containerForPath(const std::string& path);

// The sample type the container stores for a wished one (FLAC holds at most
// 24 bits, Ogg codecs take floats); throws UsageError when `explicitType`
// asks for one it cannot hold.
SampleType storedType(Container container, SampleType wished, bool explicitType,
                      const std::string& path);

// A writer of the container on the sink; extras go into WAVE outputs only.
std::unique_ptr<AudioWriter> openWriter(Container container, ByteSink& sink,
                                        const StreamFormat& format,
                                        const std::vector<ExtraChunk>& extras);

} // namespace cli
