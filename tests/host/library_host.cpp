// dsp_library_host: loads the shared library at run time the way a host does
// (LoadLibrary on Windows, dlopen elsewhere), looks the pool functions up by
// their plain names and checks that the load hook built the pool before the
// first call. Usage: dsp_library_host <path to dsp.dll or libdsp.so>
#include <cstdint>
#include <cstdio>

#if defined(_WIN32)
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace {

using AllocFunction = void* (*)(uint32_t);
using FreeFunction = uint32_t (*)(void*);
using SizeFunction = uint32_t (*)();
using SwitchFunction = void (*)(uint8_t);

#if defined(_WIN32)
using Library = HMODULE;
Library openLibrary(const char* path) {
    return LoadLibraryA(path);
}
void* findSymbol(Library library, const char* name) {
    return reinterpret_cast<void*>(GetProcAddress(library, name));
}
bool closeLibrary(Library library) {
    return FreeLibrary(library) != 0;
}
#else
using Library = void*;
Library openLibrary(const char* path) {
    return dlopen(path, RTLD_NOW | RTLD_LOCAL);
}
void* findSymbol(Library library, const char* name) {
    return dlsym(library, name);
}
bool closeLibrary(Library library) {
    return dlclose(library) == 0;
}
#endif

int failures = 0;

void check(bool ok, const char* what) {
    std::printf("%s %s\n", ok ? "ok  " : "FAIL", what);
    if (!ok) {
        ++failures;
    }
}

template <typename Function>
Function lookUp(Library library, const char* name) {
    Function f = reinterpret_cast<Function>(findSymbol(library, name));
    std::printf("%s %s\n", f != nullptr ? "ok  " : "FAIL", name);
    if (f == nullptr) {
        ++failures;
    }
    return f;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <library>\n", argv[0]);
        return 2;
    }
    Library library = openLibrary(argv[1]);
    if (library == nullptr) {
        std::printf("FAIL cannot load %s\n", argv[1]);
        return 1;
    }
    AllocFunction alloc = lookUp<AllocFunction>(library, "fastmemAlloc");
    FreeFunction release = lookUp<FreeFunction>(library, "fastmemFree");
    SizeFunction size = lookUp<SizeFunction>(library, "fastmemGetAllocatedSize");
    SwitchFunction sse = lookUp<SwitchFunction>(library, "dspEnableSse");
    check(findSymbol(library, "dspEnableSSE") == nullptr, "no export under another spelling");
    if (alloc != nullptr && release != nullptr && size != nullptr && sse != nullptr) {
        // The pool exists from load on: a fresh library has nothing allocated.
        check(size() == 0, "pool empty after load");
        void* block = alloc(100);
        check(block != nullptr, "fastmemAlloc(100) gives a block");
        check(reinterpret_cast<uintptr_t>(block) % 16 == 0, "block is 16-byte aligned");
        check(size() == 115, "allocated size counts 100 + 15 bytes");
        check(release(block) == 1, "fastmemFree releases it");
        check(release(block) == 0, "a second fastmemFree refuses it");
        check(size() == 0, "pool empty again");
        sse(1);
        sse(0);
        // A block left behind is released by the unload hook.
        check(alloc(64) != nullptr, "block left for the unload hook");
    }
    check(closeLibrary(library), "library unloads");
    return failures == 0 ? 0 : 1;
}
