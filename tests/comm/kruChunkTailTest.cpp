#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "comm/kruChunkTail.h"

namespace tq::comm {
namespace {

constexpr std::size_t kMaxChunk = 1000;

TEST(ChunkSize, IsTheHexadecimalNumberAtTheStartOfItsLine) {
  struct Case {
    const char* line;
    std::optional<std::size_t> size;
  };
  const Case cases[] = {
      {"0\r\n", 0},
      {"1a\r\n", 26},
      {"1A\r\n", 26},
      {"0000f\r\n", 15},
      {"9F\r\n", 159},
      {"7;name=v\r\n", 7},
      {"7 \r\n", 7},
      {"7\t;x\r\n", 7},
      {"7\r\r\n", 7},
      {"\r7\r\n", 7},
      {"1\rFFFFFFF\r\n", 0x1FFFFFFF},
      {"0\r7\r\n", 7},
      {"7\r;x\r\n", 7},
      {"7\rx\r\n", std::nullopt},
      {"", std::nullopt},
      {"\r\n", std::nullopt},
      {"7", std::nullopt},
      {"7\n", std::nullopt},
      {"7\r", std::nullopt},
      {"7;x\n", std::nullopt},
      {"7x\r\n", std::nullopt},
      {"0x7\r\n", std::nullopt},
      {"-7\r\n", std::nullopt},
      {"+7\r\n", std::nullopt},
      {" 7\r\n", std::nullopt},
      {";\r\n", std::nullopt},
      {"g\r\n", std::nullopt},
  };
  for (const Case& test : cases) EXPECT_EQ(test.size, chunkSizeOf(test.line)) << test.line;
}

TEST(ChunkSize, OfANumberThatNoMachineHoldsIsTheLargestOne) {
  EXPECT_EQ(static_cast<std::size_t>(-1), chunkSizeOf("ffffffffffffffff\r\n"));
  EXPECT_EQ(static_cast<std::size_t>(-1), chunkSizeOf("10000000000000000\r\n"));
}

/// The bytes that are left for the next reply when they come in pieces of this size, or "broken".
std::string leftOf(ChunkTail tail, const std::string& bytes, std::size_t piece) {
  for (std::size_t at = 0; at < bytes.size(); at += piece) {
    const std::string part = bytes.substr(at, piece);
    const std::size_t skipped = tail.skip(part.data(), part.size());
    if (tail.broken()) return "broken";
    if (!tail.active() && at + skipped < bytes.size()) {
      return std::string(tail.reclaim()) + bytes.substr(at + skipped);
    }
  }
  return tail.active() ? "more" : "";
}

ChunkTail afterData() {
  ChunkTail tail;
  tail.startBehindData(kMaxChunk);
  return tail;
}

ChunkTail afterLastChunk() {
  ChunkTail tail;
  tail.startBehindLastChunk();
  return tail;
}

void expectLeft(const ChunkTail& tail, const std::string& bytes, const std::string& expected) {
  for (const std::size_t piece : {1U, 2U, 3U, 5U, 1000000U}) {
    EXPECT_EQ(expected, leftOf(tail, bytes, piece)) << bytes << " in pieces of " << piece;
  }
}

TEST(ChunkTail, SkipsNothingAtFirst) {
  const ChunkTail tail;
  EXPECT_FALSE(tail.active());
  EXPECT_FALSE(tail.broken());
  expectLeft(tail, "0\r\n\r\n", "0\r\n\r\n");
}

TEST(ChunkTail, SkipsUpToTheBlankLineAfterTheLastChunk) {
  expectLeft(afterData(), "\r\n0\r\n\r\nHTTP/1.1", "HTTP/1.1");
  expectLeft(afterData(), "\r\n0\r\n\r\n", "");
  expectLeft(afterData(), "\r\n5\r\nHTTP/\r\na;x=y\r\n0123456789\r\n0\r\n\r\nnext", "next");
  expectLeft(afterLastChunk(), "\r\nnext", "next");
  expectLeft(afterLastChunk(), "\nnext", "next");
}

TEST(ChunkTail, SkipsTrailers) {
  expectLeft(afterLastChunk(), "X-A: 1\r\nY: HTTP\r\n\r\nHTTP/1.1", "HTTP/1.1");
  expectLeft(afterData(), "\r\n0\r\nX-A: 1\r\n\r\nnext", "next");
}

TEST(ChunkTail, EndsInFrontOfAStatusLineThatComesInsteadOfTheEnd) {
  expectLeft(afterData(), "\r\nHTTP/1.1", "HTTP/1.1");
  expectLeft(afterData(), "HTTP/1.1", "HTTP/1.1");
  expectLeft(afterLastChunk(), "HTTP/1.1", "HTTP/1.1");
  expectLeft(afterLastChunk(), "X-A: 1\r\nHTTP/1.1", "HTTP/1.1");
}

TEST(ChunkTail, TellsATrailerThatBeginsAsAStatusLineDoesFromOne) {
  for (const char* trailer : {"Host: a\r\n", "H: 1\r\n", "H\r\n", "HTTP: 1\r\n", "HT\r\n", "HTTP\n",
                              "HTTp/1.1 200 OK\r\n", "HHTTP/1.1\r\n", "H\rTTP/\r\n"}) {
    const std::string line = trailer;
    expectLeft(afterLastChunk(), line + "\r\nHTTP/1.1", "HTTP/1.1");
    expectLeft(afterLastChunk(), line + "HTTP/1.1", "HTTP/1.1");
    expectLeft(afterLastChunk(), "X-A: 1\r\n" + line + line + "\r\nnext", "next");
    expectLeft(afterData(), "\r\n0\r\n" + line + "\r\nHTTP/1.1", "HTTP/1.1");
    expectLeft(afterLastChunk(), line, "more");
  }
}

TEST(ChunkTail, GivesBackTheBytesOfAStatusLineThatItTookForATrailer) {
  ChunkTail tail = afterLastChunk();
  EXPECT_FALSE(tail.undecided());
  EXPECT_EQ(3U, tail.skip("HTT", 3));
  EXPECT_TRUE(tail.active());
  EXPECT_TRUE(tail.undecided());
  EXPECT_EQ("", tail.reclaim());
  EXPECT_EQ(0U, tail.skip("P/1.1", 5));
  EXPECT_FALSE(tail.active());
  EXPECT_FALSE(tail.undecided());
  EXPECT_EQ("HTT", tail.reclaim());
  EXPECT_EQ("", tail.reclaim()) << "only once";
}

TEST(ChunkTail, GivesNothingBackOfATrailer) {
  ChunkTail tail = afterLastChunk();
  tail.skip("HTT", 3);
  EXPECT_EQ(1U, tail.skip("X", 1));
  EXPECT_FALSE(tail.undecided());
  EXPECT_TRUE(tail.active());
  EXPECT_EQ(4U, tail.skip("\r\n\r\n", 4));
  EXPECT_FALSE(tail.active());
  EXPECT_EQ("", tail.reclaim());
}

TEST(ChunkTail, ForgetsABegunStatusLineWhenItBeginsAnew) {
  for (const bool whole : {false, true}) {
    ChunkTail tail = afterLastChunk();
    tail.skip("HTTP", 4);
    if (whole) tail.skip("/", 1);
    tail.startBehindLastChunk();
    EXPECT_FALSE(tail.undecided());
    EXPECT_EQ("", tail.reclaim());
    EXPECT_EQ(5U, tail.skip("/: 1\n", 5));
  }
}

TEST(ChunkTail, ForgetsABegunSizeLineWhenItBeginsAnew) {
  ChunkTail tail = afterData();
  tail.skip("\r\n5", 3);
  tail.startBehindData(kMaxChunk);
  expectLeft(tail, "\r\n0\r\n\r\nnext", "next");
}

TEST(ChunkTail, IsActiveUntilItsEndHasCome) {
  for (const char* bytes :
       {"", "\r", "\r\n", "\r\n0", "\r\n0\r\n", "\r\n0\r\n\r", "\r\n3\r\nab", "\r\n0\r\nX"}) {
    expectLeft(afterData(), bytes, "more");
  }
}

TEST(ChunkTail, WhatIsNoChunkBreaksItForGood) {
  for (const char* bytes : {"x", "\r\n-1\r\n", "\r\n5z\r\n", "12\n", "\r\n \r\n"}) {
    expectLeft(afterData(), bytes, "broken");
  }
  ChunkTail tail = afterData();
  tail.skip("x", 1);
  EXPECT_FALSE(tail.active());
  EXPECT_EQ(0U, tail.skip("0\r\n", 3));
  tail.clear();
  EXPECT_FALSE(tail.broken());
}

TEST(ChunkTail, TheLimitOfAChunkHoldsToTheByteAndCanBeMoved) {
  for (const std::size_t limit : {std::size_t{15}, std::size_t{255}}) {
    const std::string at = limit == 15 ? "f\r\n" : "ff\r\n";
    const std::string over = limit == 15 ? "10\r\n" : "100\r\n";
    ChunkTail tail;
    tail.startBehindData(limit);
    expectLeft(tail, at, "more");
    expectLeft(tail, over, "broken");
  }
}

TEST(ChunkTail, ThatDoesNotEndWithinAMegabyteIsGivenUp) {
  const std::string chunk = "\r\n3e8\r\n" + std::string(1000, 'x');
  std::string chunks;
  while (chunks.size() < (std::size_t{1} << 20) - 2 * chunk.size()) chunks += chunk;
  const std::string trailers(std::size_t{1} << 20, 't');
  for (const std::size_t piece : {64U, 1000U}) {
    EXPECT_EQ("next", leftOf(afterData(), chunks + "\r\n0\r\n\r\nnext", piece));
    EXPECT_EQ("broken", leftOf(afterData(), chunks + chunk + chunk + chunk, piece));
    EXPECT_EQ("broken", leftOf(afterLastChunk(), trailers, piece));
    EXPECT_EQ("broken", leftOf(afterData(), std::string(trailers.size(), '\n'), piece));
  }
}

TEST(ChunkTail, ASizeLineIsAsLongAs125CharactersAndNoLonger) {
  expectLeft(afterData(), std::string(124, '0') + "1\r\nx\r\n0\r\n\r\nnext", "next");
  expectLeft(afterData(), std::string(125, '0') + "1\r\n", "broken");
}

}  // namespace
}  // namespace tq::comm
