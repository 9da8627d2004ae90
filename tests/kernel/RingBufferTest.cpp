#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "kernel/RingBuffer.h"

using namespace KovexEngine;

TEST(RingBuffer, WritesAndReadsInOrderAcrossTheWrap)
{
    RingBuffer ring(64);
    const void* data;
    unsigned size;
    EXPECT_FALSE(ring.BeginRead(data, size));
    char block[40];
    std::memset(block, 'a', sizeof block);
    ASSERT_TRUE(ring.Write(block, 40));
    ASSERT_TRUE(ring.BeginRead(data, size));
    EXPECT_EQ(size, 40u);
    ring.EndRead(40);
    // 30 more do not fit before the end (40 + 30 > 64): the writer wraps.
    std::memset(block, 'b', sizeof block);
    ASSERT_TRUE(ring.Write(block, 30));
    ASSERT_TRUE(ring.BeginRead(data, size));
    EXPECT_EQ(size, 30u);
    EXPECT_EQ(static_cast<const char*>(data)[0], 'b');
    ring.EndRead(size);
    EXPECT_FALSE(ring.BeginRead(data, size));
    EXPECT_FALSE(ring.Write(block, 64)) << "a run of the block's size could never fit";
}

TEST(RingBuffer, ProducerAndConsumerOnTwoThreads)
{
    RingBuffer ring(1024);
    constexpr unsigned kMessages = 20000;
    std::thread producer([&ring] {
        for (unsigned i = 0; i < kMessages; ++i)
        {
            unsigned message[3] = {i, i * 7u, ~i};
            ASSERT_TRUE(ring.Write(message, sizeof message));
        }
    });
    std::vector<unsigned char> received;
    received.reserve(kMessages * 12);
    while (received.size() < kMessages * 12)
    {
        const void* data;
        unsigned size;
        if (!ring.BeginRead(data, size))
        {
            std::this_thread::yield();
            continue;
        }
        auto* bytes = static_cast<const unsigned char*>(data);
        received.insert(received.end(), bytes, bytes + size);
        ring.EndRead(size);
    }
    producer.join();
    for (unsigned i = 0; i < kMessages; ++i)
    {
        unsigned message[3];
        std::memcpy(message, received.data() + i * 12, 12);
        ASSERT_EQ(message[0], i);
        ASSERT_EQ(message[1], i * 7u);
        ASSERT_EQ(message[2], ~i);
    }
}
