#include "library_state.h"

#include "fastmem_pool.h"
#include "lookup_tables.h"

#include <new>

#if defined(_WIN32) && defined(DSP_DLL_ENTRY)
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#endif

namespace dsp {

namespace {

// Raw storage so that the objects are constructed exactly when the load hook
// runs, independent of the order of static initialisers across files.
alignas(DecibelTable) unsigned char decibelStorage[sizeof(DecibelTable)];
alignas(FastmemPool) unsigned char poolStorage[sizeof(FastmemPool)];
alignas(SineTable) unsigned char sineStorage[sizeof(SineTable)];

DecibelTable* decibel = nullptr;
FastmemPool* pool = nullptr;
SineTable* sine = nullptr;

constexpr double kTwoPi = 6.283185307179586;

} // namespace

void libraryLoad() {
    if (pool != nullptr) {
        return;
    }
    decibel = new (decibelStorage) DecibelTable();
    decibel->build(2048, -50.0, 50.0);
    pool = new (poolStorage) FastmemPool();
    sine = new (sineStorage) SineTable();
    sine->build(kTwoPi, 1024);
}

void libraryUnload() {
    if (pool == nullptr) {
        return;
    }
    sine->~SineTable();
    sine = nullptr;
    pool->releaseAll();
    pool->~FastmemPool();
    pool = nullptr;
    decibel->~DecibelTable();
    decibel = nullptr;
}

FastmemPool& fastmemPool() {
    return *pool;
}

const DecibelTable& decibelTable() {
    return *decibel;
}

const SineTable& sineTable() {
    return *sine;
}

} // namespace dsp

// The load and unload hooks. They live in this file so that any static link
// that uses the pool or the tables also links the hooks in. The Windows DLL
// uses DllMain (and asks not to be told of threads); everything else uses a
// constructor/destructor pair.
#if defined(_WIN32) && defined(DSP_DLL_ENTRY)
extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) {
        DisableThreadLibraryCalls(instance);
        dsp::libraryLoad();
    } else if (reason == DLL_PROCESS_DETACH) {
        dsp::libraryUnload();
    }
    return TRUE;
}
#else
namespace {
__attribute__((constructor)) void onLibraryLoad() {
    dsp::libraryLoad();
}
__attribute__((destructor)) void onLibraryUnload() {
    dsp::libraryUnload();
}
} // namespace
#endif
