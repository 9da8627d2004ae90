#pragma once

#include <cstddef>
#include <mutex>

#include "kernel/Export.h"

namespace KovexEngine {

// A heap for many small objects of a few sizes: blocks of whole cache
// lines, cut from 2 MB chunks aligned to 2 MB that ask the kernel for huge
// pages. Objects made one after another lie side by side, and a walk over a
// large set of them (a scene graph of 100,000 nodes) costs a handful of TLB
// entries instead of one per object. A chunk whose blocks are all free goes
// back to the system unless it is its size's last one. Blocks over
// kMaxBlock bytes come from the ordinary heap.
//
// Threads: every call is safe from any thread (one lock per heap).
class KOVEX_API SlabHeap
{
public:
    static constexpr size_t kChunkSize = size_t(2) << 20;
    static constexpr size_t kGranule = 64;
    static constexpr size_t kMaxBlock = 4096;

    SlabHeap() = default;
    SlabHeap(const SlabHeap&) = delete;
    SlabHeap& operator=(const SlabHeap&) = delete;
    // Gives every chunk back; blocks still out become invalid.
    ~SlabHeap();

    // A block of at least `size` bytes aligned to kGranule (to 16 above
    // kMaxBlock). Throws std::bad_alloc when the system has no memory, as
    // operator new does.
    void* Allocate(size_t size);
    // `size` is the one the block was allocated with.
    void Free(void* block, size_t size);

    struct Stats
    {
        size_t chunks = 0;
        size_t liveBlocks = 0;
    };
    Stats GetStats() const;

private:
    struct Chunk;
    static constexpr unsigned kClasses = unsigned(kMaxBlock / kGranule);

    Chunk* NewChunk(unsigned sizeClass);
    void Link(Chunk* chunk);
    void Unlink(Chunk* chunk);

    mutable std::mutex m_lock;
    // Per size class, the chunks with a free or never-used block.
    Chunk* m_open[kClasses] = {};
    Chunk* m_all = nullptr; // every chunk, for the destructor
    Stats m_stats;
};

} // namespace KovexEngine
