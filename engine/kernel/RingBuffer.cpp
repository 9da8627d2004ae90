#include "kernel/RingBuffer.h"

#include <sched.h>

#include <cstdlib>
#include <cstring>

#include "kernel/Spin.h"

namespace KovexEngine {

RingBuffer::RingBuffer(unsigned size)
{
    m_block = static_cast<uint8*>(std::malloc(size ? size : 1));
    m_size = m_block ? size : 0;
}

RingBuffer::~RingBuffer() { std::free(m_block); }

bool RingBuffer::Write(const void* data, unsigned size)
{
    if (size == 0)
        return true;
    // The writer never lets its position reach the reader's from below, so a
    // run must leave at least one byte free.
    if (!m_block || size >= m_size)
        return false;
    unsigned write = m_write.load(std::memory_order_relaxed);
    SpinWait spin;
    for (;;)
    {
        unsigned read = m_read.load(std::memory_order_acquire);
        if (write < read)
        {
            if (write + size < read)
                break;
        }
        else if (write + size <= m_size)
            break;
        else if (read != 0)
        {
            // Wrap: mark the end of this lap and restart at the block's start.
            m_wrapMark.store(write, std::memory_order_relaxed);
            write = 0;
            m_write.store(0, std::memory_order_release);
            continue;
        }
        spin.Pause();
    }
    std::memcpy(m_block + write, data, size);
    m_write.store(write + size, std::memory_order_release);
    return true;
}

bool RingBuffer::BeginRead(const void*& data, unsigned& size)
{
    unsigned read = m_read.load(std::memory_order_relaxed);
    unsigned write = m_write.load(std::memory_order_acquire);
    if (read == write)
        return false;
    unsigned wrap = m_wrapMark.load(std::memory_order_relaxed);
    if (write < read && read == wrap)
    {
        read = 0;
        m_read.store(0, std::memory_order_release);
        if (read == write)
            return false;
    }
    data = m_block + read;
    size = (write >= read ? write : wrap) - read;
    return size != 0;
}

void RingBuffer::EndRead(unsigned size)
{
    m_read.store(m_read.load(std::memory_order_relaxed) + size, std::memory_order_release);
}

} // namespace KovexEngine
