// Building and tearing down the library's process-wide state: the decibel
// table, the fastmem pool and the sine table, in that order, and the reverse at
// unload. Called from the library's load hook, defined in the same file.
#pragma once

namespace dsp {

void libraryLoad();
void libraryUnload();

} // namespace dsp
