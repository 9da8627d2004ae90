#include "kernel/SlabHeap.h"

#include <sys/mman.h>

#include <cstdint>
#include <new>

#include "kernel/Sanitizers.h"

#if KOVEX_ASAN
#include <sanitizer/asan_interface.h>
#define KOVEX_POISON(p, n) ASAN_POISON_MEMORY_REGION(p, n)
#define KOVEX_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION(p, n)
#else
#define KOVEX_POISON(p, n) ((void)(p), (void)(n))
#define KOVEX_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace KovexEngine {

// The first granule of every chunk. Free blocks are linked through their
// first word.
struct SlabHeap::Chunk
{
    Chunk* prevOpen = nullptr;
    Chunk* nextOpen = nullptr;
    Chunk* prevAll = nullptr;
    Chunk* nextAll = nullptr;
    void* free = nullptr;
    char* bump = nullptr; // the next block never handed out
    unsigned live = 0;
    unsigned sizeClass = 0;
    bool open = false;

    size_t BlockSize() const { return (sizeClass + 1) * kGranule; }
    bool Full() const { return !free && bump + BlockSize() > reinterpret_cast<const char*>(this) + kChunkSize; }
};

SlabHeap::~SlabHeap()
{
    for (Chunk* chunk = m_all; chunk;)
    {
        Chunk* next = chunk->nextAll;
        KOVEX_UNPOISON(chunk, kChunkSize);
        munmap(chunk, kChunkSize);
        chunk = next;
    }
}

SlabHeap::Chunk* SlabHeap::NewChunk(unsigned sizeClass)
{
    static_assert(sizeof(Chunk) <= kGranule, "the header takes the first granule");
    // Twice the size, then the unaligned ends go back: the kernel only
    // backs a 2 MB-aligned range with a huge page.
    void* raw = mmap(nullptr, 2 * kChunkSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED)
        return nullptr;
    auto start = reinterpret_cast<uintptr_t>(raw);
    uintptr_t aligned = (start + kChunkSize - 1) & ~(uintptr_t(kChunkSize) - 1);
    if (aligned > start)
        munmap(raw, aligned - start);
    if (uintptr_t tail = start + 2 * kChunkSize - (aligned + kChunkSize))
        munmap(reinterpret_cast<void*>(aligned + kChunkSize), tail);
    void* memory = reinterpret_cast<void*>(aligned);
#ifdef MADV_HUGEPAGE
    madvise(memory, kChunkSize, MADV_HUGEPAGE); // a hint; without it the chunk still works
#endif
    auto* chunk = new (memory) Chunk();
    chunk->sizeClass = sizeClass;
    chunk->bump = static_cast<char*>(memory) + kGranule;
    KOVEX_POISON(chunk->bump, kChunkSize - kGranule);
    chunk->nextAll = m_all;
    if (m_all)
        m_all->prevAll = chunk;
    m_all = chunk;
    ++m_stats.chunks;
    return chunk;
}

void SlabHeap::Link(Chunk* chunk)
{
    Chunk*& head = m_open[chunk->sizeClass];
    chunk->prevOpen = nullptr;
    chunk->nextOpen = head;
    if (head)
        head->prevOpen = chunk;
    head = chunk;
    chunk->open = true;
}

void SlabHeap::Unlink(Chunk* chunk)
{
    if (chunk->prevOpen)
        chunk->prevOpen->nextOpen = chunk->nextOpen;
    else
        m_open[chunk->sizeClass] = chunk->nextOpen;
    if (chunk->nextOpen)
        chunk->nextOpen->prevOpen = chunk->prevOpen;
    chunk->prevOpen = chunk->nextOpen = nullptr;
    chunk->open = false;
}

void* SlabHeap::Allocate(size_t size)
{
    if (size > kMaxBlock)
        return ::operator new(size);
    unsigned sizeClass = size ? unsigned((size - 1) / kGranule) : 0;
    size_t blockSize = (sizeClass + 1) * kGranule;
    std::lock_guard<std::mutex> lock(m_lock);
    Chunk* chunk = m_open[sizeClass];
    if (!chunk)
    {
        chunk = NewChunk(sizeClass);
        if (!chunk)
            throw std::bad_alloc();
        Link(chunk);
    }
    void* block;
    if (chunk->free)
    {
        block = chunk->free;
        KOVEX_UNPOISON(block, blockSize);
        chunk->free = *static_cast<void**>(block);
    }
    else
    {
        block = chunk->bump;
        chunk->bump += blockSize;
        KOVEX_UNPOISON(block, blockSize);
    }
    ++chunk->live;
    ++m_stats.liveBlocks;
    if (chunk->Full())
        Unlink(chunk);
    return block;
}

void SlabHeap::Free(void* block, size_t size)
{
    if (!block)
        return;
    if (size > kMaxBlock)
    {
        ::operator delete(block);
        return;
    }
    auto* chunk = reinterpret_cast<Chunk*>(reinterpret_cast<uintptr_t>(block) & ~(uintptr_t(kChunkSize) - 1));
    std::lock_guard<std::mutex> lock(m_lock);
    *static_cast<void**>(block) = chunk->free;
    chunk->free = block;
    KOVEX_POISON(block, chunk->BlockSize());
    --chunk->live;
    --m_stats.liveBlocks;
    if (!chunk->open)
        Link(chunk);
    // An empty chunk goes back, unless it is the only one its size has
    // room in: a size that comes and goes should not map and unmap.
    if (chunk->live == 0 && (chunk->prevOpen || chunk->nextOpen))
    {
        Unlink(chunk);
        if (chunk->prevAll)
            chunk->prevAll->nextAll = chunk->nextAll;
        else
            m_all = chunk->nextAll;
        if (chunk->nextAll)
            chunk->nextAll->prevAll = chunk->prevAll;
        --m_stats.chunks;
        KOVEX_UNPOISON(chunk, kChunkSize);
        munmap(chunk, kChunkSize);
    }
}

SlabHeap::Stats SlabHeap::GetStats() const
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_stats;
}

} // namespace KovexEngine
