#include "byte_buffer.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace NEUtils;

constexpr std::uint32_t kMost = 0xA00000;

// Off by one at the limits is a heap overrun in every reader of the kernel's data.
TEST(ByteBufferTest, AllocAndExtendKeepTheirLimitsAndTheContent)
{
    ByteBuffer buffer;
    EXPECT_TRUE(buffer.Alloc(kMost));
    EXPECT_FALSE(buffer.Alloc(kMost + 1));
    EXPECT_EQ(buffer.GetCapacity(), kMost + 1);  // a refused request changes nothing
    EXPECT_FALSE(buffer.Alloc(0));
    EXPECT_TRUE(buffer.Extend(3));  // on an empty buffer the same as Alloc
    ASSERT_TRUE(buffer.SetBuffer("abc", 3));
    EXPECT_FALSE(buffer.Extend(0));
    EXPECT_TRUE(buffer.Extend(5));
    EXPECT_EQ(buffer.GetCapacity(), 9U);
    EXPECT_EQ(std::memcmp(buffer.GetBuffer(), "abc\0\0\0\0\0", 9), 0);
    EXPECT_FALSE(buffer.Extend(kMost - 8));
    EXPECT_FALSE(buffer.Extend(0xFFFFFFFFU));  // the sum must not wrap
    EXPECT_TRUE(buffer.Extend(kMost - 9));
}

// Kept: without storage the size takes any value.
TEST(ByteBufferTest, SizeStaysBelowTheCapacityAndSetBufferCopiesAlsoFromItself)
{
    ByteBuffer buffer;
    EXPECT_EQ(buffer.SetSize(100), 100U);
    EXPECT_EQ(buffer.ToString(), "");
    ASSERT_TRUE(buffer.Alloc(4));
    EXPECT_EQ(buffer.SetSize(4), 4U);
    EXPECT_EQ(buffer.SetSize(5), 4U);

    ASSERT_TRUE(buffer.SetBuffer("0123456789", 10));
    EXPECT_TRUE(buffer.SetBuffer(buffer.GetBuffer() + 4, 6));
    EXPECT_STREQ(reinterpret_cast<const char*>(buffer.GetBuffer()), "456789");
    EXPECT_FALSE(buffer.SetBuffer("x", kMost + 1));
    EXPECT_EQ(buffer.ToString(), "456789");
    EXPECT_FALSE(buffer.SetBuffer(nullptr, 3));
    EXPECT_EQ(buffer.GetBuffer(), nullptr);
}
