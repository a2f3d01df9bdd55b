// Where an output goes: a sink that is committed (put in place) only when
// complete. TEMPORARY: a minimal stand-in for the tool's safe output layer
// (tools/output_file.h); openOutput is the one place that chooses the sink,
// and will return that layer's OutputFile when it lands.
#pragma once

#include "byte_stream.h"

#include <memory>
#include <string>
#include <vector>

namespace cli {

class OutputTarget : public ByteSink {
public:
    // Puts the finished output in place; without it, nothing is left behind.
    virtual void commit() = 0;
};

// "-" is standard output (not seekable). A file is written beside its
// destination and renamed into place by commit(); an output that is one of
// `inputs` is refused (UsageError).
std::unique_ptr<OutputTarget> openOutput(const std::string& path,
                                         const std::vector<std::string>& inputs);

} // namespace cli
