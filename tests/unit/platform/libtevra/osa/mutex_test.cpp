#include "tevra/osa/mutex.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tevra/osa/exception.h"

namespace {

using tevra::osa::Exception;
using tevra::osa::Mutex;
using tevra::osa::MutexAutoLock;

// Tries from another thread; tells the message of the refusal, or "" when the lock was had.
std::string TryElsewhere(Mutex& mutex, int timeout_ms) {
  std::string refusal;
  std::thread([&]() TEVRA_NO_THREAD_SAFETY_ANALYSIS {
    try {
      mutex.Lock(timeout_ms);
      mutex.Unlock();
    } catch (const Exception& error) {
      refusal = error.what();
    }
  }).join();
  return refusal;
}

TEST(Mutex, KeepsItsName) {
  EXPECT_EQ(Mutex("NonceCache").Name(), "NonceCache");
  EXPECT_EQ(Mutex().Name(), "");
}

TEST(Mutex, RefusesAfterTheTimeIsOverAndNamesItself) {
  Mutex mutex("NonceCache");
  const MutexAutoLock lock(mutex);
  EXPECT_EQ(TryElsewhere(mutex, 0), "mutex \"NonceCache\": no lock within 0 ms");
  EXPECT_EQ(TryElsewhere(mutex, 5), "mutex \"NonceCache\": no lock within 5 ms");
}

TEST(Mutex, LocksWithAndWithoutALimitWhenFree) {
  Mutex mutex;
  EXPECT_EQ(TryElsewhere(mutex, 0), "");
  EXPECT_EQ(TryElsewhere(mutex, 1999), "");
  EXPECT_EQ(TryElsewhere(mutex, 2147483647), "");
  EXPECT_EQ(TryElsewhere(mutex, -1), "");
}

TEST(Mutex, ExcludesOtherThreads) {
  Mutex mutex;
  int count = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&mutex, &count, i] {
      for (int j = 0; j < 10000; ++j) {
        const MutexAutoLock lock(mutex, i % 2 == 0 ? -1 : 60000);
        ++count;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(count, 40000);
}

TEST(MutexAutoLock, ReleasesAtTheEndOfItsScope) {
  Mutex mutex;
  { const MutexAutoLock lock(mutex, -1, true); }
  EXPECT_EQ(TryElsewhere(mutex, 0), "");
}

TEST(MutexAutoLock, ReleasesWhenItsScopeThrows) {
  Mutex mutex;
  try {
    const MutexAutoLock lock(mutex);
    throw 1;
  } catch (int) {
  }
  EXPECT_EQ(TryElsewhere(mutex, 0), "");
}

TEST(MutexAutoLock, LeavesTheMutexAloneWhenTheCallerHoldsIt) {
  Mutex mutex;
  const MutexAutoLock outer(mutex);
  [&mutex]() TEVRA_NO_THREAD_SAFETY_ANALYSIS { const MutexAutoLock inner(mutex, -1, false); }();
  EXPECT_NE(TryElsewhere(mutex, 0), "");
}

}  // namespace
