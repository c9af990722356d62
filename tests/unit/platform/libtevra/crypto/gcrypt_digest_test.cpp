#include "tevra/crypto/gcrypt_digest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "tevra/core/hexadecimal.h"
#include "tevra/crypto/gcrypt_init.h"
#include "tevra/osa/exception.h"

namespace {

using tevra::crypto::GCryptDigest;
using tevra::crypto::GCryptInit;
using tevra::crypto::MD5;

std::string Hex(const unsigned char* bytes, size_t size) {
  return tevra::core::Hexadecimal({reinterpret_cast<const char*>(bytes), size});
}

std::string DigestOf(GCryptDigest::Algorithm algorithm, const std::string& text) {
  GCryptDigest digest(algorithm);
  digest.Update(text.data(), text.size());
  return Hex(digest.Digest(), digest.DigestSize());
}

TEST(GCryptInit, RunsAnyNumberOfTimesInAnyThread) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int j = 0; j < 1000; ++j) GCryptInit::InitializeGcrypt(1);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(GCryptInit, KnowsNoOtherMode) {
  EXPECT_THROW(GCryptInit::InitializeGcrypt(0), tevra::osa::Exception);
  EXPECT_THROW(GCryptInit::InitializeGcrypt(2), tevra::osa::Exception);
}

TEST(Md5, GivesTheKnownValues) {
  EXPECT_EQ(Hex(MD5("").Digest(), MD5::kSize), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(Hex(MD5("abc").Digest(), MD5::kSize), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(Hex(MD5(std::string("\0", 1)).Digest(), MD5::kSize),
            "93b885adfe0da089cdf634904fd59f71");
}

TEST(GCryptDigest, GivesTheKnownValues) {
  EXPECT_EQ(DigestOf(GCryptDigest::kMd5, "abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(DigestOf(GCryptDigest::kSha1, "abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(DigestOf(GCryptDigest::kSha256, "abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(DigestOf(GCryptDigest::kSha1, ""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST(GCryptDigest, TakesTheSameBytesInAnyNumberOfPieces) {
  const std::string text(1000, 'x');
  GCryptDigest digest(GCryptDigest::kSha1);
  for (size_t i = 0; i < text.size(); i += 7) {
    digest.Update(text.data() + i, std::min<size_t>(7, text.size() - i));
    digest.Update(nullptr, 0);
  }
  EXPECT_EQ(Hex(digest.Digest(), digest.DigestSize()), DigestOf(GCryptDigest::kSha1, text));
}

TEST(GCryptDigest, GivesTheSameValueTwiceAndTakesNothingAfterwards) {
  GCryptDigest digest(GCryptDigest::kMd5);
  digest.Update("abc", 3);
  const std::string first = Hex(digest.Digest(), digest.DigestSize());
  EXPECT_EQ(Hex(digest.Digest(), digest.DigestSize()), first);
  EXPECT_THROW(digest.Update("d", 1), tevra::osa::Exception);
  EXPECT_EQ(Hex(digest.Digest(), digest.DigestSize()), first);
}

TEST(GCryptDigest, WorksInSeveralThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int j = 0; j < 500; ++j) {
        EXPECT_EQ(DigestOf(GCryptDigest::kSha1, "abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
        EXPECT_EQ(Hex(MD5("abc").Digest(), MD5::kSize), "900150983cd24fb0d6963f7d28e17f72");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
