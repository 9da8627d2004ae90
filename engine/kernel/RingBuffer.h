#pragma once

#include <atomic>

#include "kernel/Types.h"

namespace KovexEngine {

// A single-producer, single-consumer byte queue over one block. The writer
// waits for room; a run that does not fit before the block's end wraps to
// its start, and the wrap mark tells the reader where the last lap ended.
class KOVEX_API RingBuffer
{
public:
    explicit RingBuffer(unsigned size = 0x40000);
    ~RingBuffer();
    RingBuffer(const RingBuffer&) = delete;
    RingBuffer& operator=(const RingBuffer&) = delete;

    unsigned GetSize() const { return m_size; }

    // Copies `size` bytes in, waiting while the reader holds the room. False
    // for data that could never fit (at least the block's size) or when the
    // block could not be allocated.
    bool Write(const void* data, unsigned size);
    // The next contiguous run to read; false when there is none.
    bool BeginRead(const void*& data, unsigned& size);
    // Consumes `size` bytes of the run that BeginRead gave.
    void EndRead(unsigned size);

private:
    uint8* m_block = nullptr;
    unsigned m_size = 0;
    std::atomic<unsigned> m_write{0};
    std::atomic<unsigned> m_read{0};
    std::atomic<unsigned> m_wrapMark{0};
};

} // namespace KovexEngine
