// Memory and file streams.
#include <gtest/gtest.h>

#include "com/platform.h"
#include "tests/test_support.h"

namespace pw {
namespace {

LARGE_INTEGER Offset(std::int64_t n) {
  LARGE_INTEGER li;
  li.QuadPart = n;
  return li;
}

void ExerciseStream(IStream* stream) {
  ASSERT_EQ(WriteExact(stream, "hello world", 11), S_OK);
  ULARGE_INTEGER pos;
  ASSERT_EQ(stream->Seek(Offset(-5), STREAM_SEEK_END, &pos), S_OK);
  EXPECT_EQ(pos.QuadPart, 6u);
  char buffer[8] = {};
  ASSERT_EQ(ReadExact(stream, buffer, 5), S_OK);
  EXPECT_EQ(std::string(buffer, 5), "world");
  // Reading past the end is short, and ReadExact calls that a fault.
  ULONG got = 99;
  EXPECT_EQ(stream->Read(buffer, 4, &got), S_FALSE);
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(ReadExact(stream, buffer, 1), STG_E_READFAULT);
  EXPECT_EQ(stream->Seek(Offset(-1), STREAM_SEEK_SET, nullptr), STG_E_INVALIDFUNCTION);
  STATSTG stat;
  ASSERT_EQ(stream->Stat(&stat, STATFLAG_NONAME), S_OK);
  EXPECT_EQ(stat.cbSize.QuadPart, 11u);
}

TEST(MemoryStream, ReadsWritesSeeksAndClones) {
  ComPtr<IStream> stream;
  ASSERT_EQ(CreateMemoryStream(&stream), S_OK);
  ExerciseStream(stream.Get());
  ComPtr<IStream> clone;
  ASSERT_EQ(stream->Clone(&clone), S_OK);
  ASSERT_EQ(clone->Seek(Offset(0), STREAM_SEEK_SET, nullptr), S_OK);
  ASSERT_EQ(WriteExact(clone.Get(), "J", 1), S_OK);
  const auto bytes = MemoryStreamBytes(stream.Get());  // clones share the bytes
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "Jello world");
}

TEST(FileStream, ReadsWritesAndReportsMissingFiles) {
  test::TempDir dir;
  const auto path = dir / "data.bin";
  {
    ComPtr<IStream> stream;
    ASSERT_EQ(CreateFileStream(path, STGM_READWRITE | STGM_CREATE, &stream), S_OK);
    ExerciseStream(stream.Get());
  }
  EXPECT_EQ(test::ReadFile(path), "hello world");
  ComPtr<IStream> reader;
  ASSERT_EQ(CreateFileStream(path, STGM_READ, &reader), S_OK);
  EXPECT_EQ(WriteExact(reader.Get(), "x", 1), STG_E_ACCESSDENIED);
  ComPtr<IStream> missing;
  EXPECT_EQ(CreateFileStream(dir / "absent.bin", STGM_READ, &missing), STG_E_FILENOTFOUND);
  EXPECT_EQ(missing.Get(), nullptr);
}

TEST(Stream, CopyToMovesTheRequestedBytes) {
  ComPtr<IStream> from, to;
  ASSERT_EQ(CreateMemoryStream({'a', 'b', 'c', 'd'}, &from), S_OK);
  ASSERT_EQ(CreateMemoryStream(&to), S_OK);
  ULARGE_INTEGER size, read, written;
  size.QuadPart = 3;
  ASSERT_EQ(from->CopyTo(to.Get(), size, &read, &written), S_OK);
  EXPECT_EQ(read.QuadPart, 3u);
  EXPECT_EQ(written.QuadPart, 3u);
  const auto bytes = MemoryStreamBytes(to.Get());
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "abc");
}

}  // namespace
}  // namespace pw
