#include "orvan/support/memory/heap_buffer.h"

#include <gtest/gtest.h>

#include <climits>
#include <utility>

namespace orvan {
namespace {

// A domain with a ceiling, which must be empty again at the end.
struct Limited : HeapManager {
  explicit Limited(std::size_t ceiling) : HeapManager(nullptr) { SetCeiling(ceiling); }
  ~Limited() override { EXPECT_EQ(GetBytesInUse(), 0u); }
};

TEST(HeapBufferTest, ARefusalIsNullOrFalseAndLosesNothing) {
  Limited domain(100);
  EXPECT_EQ(HeapBuffer::create(&domain, 101, 0), nullptr);
  EXPECT_EQ(HeapBuffer::CreateFromQtBuffer(&domain, QByteArray(101, 'x')), nullptr);
  EXPECT_EQ(domain.GetBytesInUse(), 0u);

  HeapBuffer* buffer = HeapBuffer::CreateFromQtBuffer(&domain, QByteArray(60, 'x'));
  EXPECT_FALSE(buffer->AppendData(QByteArray(41, 'y').constData(), 41));
  EXPECT_EQ(buffer->ToQByteArray(), QByteArray(60, 'x'));
  EXPECT_EQ(domain.GetBytesInUse(), 60u);
  // Doubling would go beyond the ceiling, the bytes themselves do not.
  EXPECT_TRUE(buffer->AppendData(QByteArray(40, 'y').constData(), 40));
  EXPECT_EQ(buffer->ToQByteArray(), QByteArray(60, 'x') + QByteArray(40, 'y'));
  buffer->unref();
}

// Each growth moves the block, so a body that comes in pieces must not grow by one of them at a time.
TEST(HeapBufferTest, ACeilingIsMetInFewSteps) {
  Limited domain(1 << 20);
  HeapBuffer* buffer = HeapBuffer::create(&domain, (1 << 19) + 1, 0);
  int growths = 0;
  for (unsigned int known = buffer->capacity(); buffer->AppendData("piece", 5);) {
    growths += buffer->capacity() != std::exchange(known, buffer->capacity());
  }
  EXPECT_EQ(buffer->size(), (1 << 20) / 5 * 5u) << "the last whole piece";
  EXPECT_LT(growths, 25);
  buffer->unref();
}

TEST(HeapBufferTest, SizesOutOfRangeAreRefused) {
  EXPECT_EQ(HeapBuffer::create(nullptr, HeapBuffer::kMaxBytes + 1, 0), nullptr);
  HeapBuffer* buffer = HeapBuffer::create(nullptr, 0, 0);
  EXPECT_FALSE(buffer->AppendData("x", -1));
  EXPECT_FALSE(buffer->ToQByteArray().isNull());
  EXPECT_TRUE(buffer->AppendData("x", 1));
  EXPECT_FALSE(buffer->AppendData("x", INT_MAX - 64)) << "the sum is what counts";
  buffer->unref();
}

TEST(HeapBufferTest, SharesItsBlockAndKeepsBothSidesApart) {
  Limited domain(0);
  const QByteArray source(1000, 'a');
  HeapBuffer* buffer = HeapBuffer::CreateFromQtBuffer(&domain, source);
  const QByteArray full = buffer->ToQByteArray();
  EXPECT_EQ(full.constData(), source.constData()) << "a full block is shared, not copied";
  buffer->data()[0] = 'b';
  EXPECT_EQ(full.at(0), 'a');
  EXPECT_TRUE(buffer->AppendData("tail", 4));
  EXPECT_EQ(buffer->ToQByteArray(), 'b' + QByteArray(999, 'a') + "tail");
  EXPECT_EQ(domain.GetBytesInUse(), buffer->capacity());
  buffer->Trim();
  EXPECT_EQ(domain.GetBytesInUse(), 1004u);
  EXPECT_TRUE(buffer->AppendData(buffer->data(), 1004)) << "bytes of its own, which move as it grows";
  EXPECT_EQ(buffer->ToQByteArray().right(1004), buffer->ToQByteArray().left(1004));
  buffer->unref();

  char foreign[] = "borrowed";
  buffer = HeapBuffer::CreateFromQtBuffer(&domain, QByteArray::fromRawData(foreign, 8));
  foreign[0] = 'X';  // memory of somebody else may change or go, so it is copied
  EXPECT_EQ(buffer->ToQByteArray(), QByteArray("borrowed"));
  buffer->unref();
}

}  // namespace
}  // namespace orvan
