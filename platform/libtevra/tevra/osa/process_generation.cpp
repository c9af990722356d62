#include "tevra/osa/process_generation.h"

#include <pthread.h>

namespace tevra::osa {

constinit std::atomic<uint64_t> ProcessGeneration::current_{0};

// The only registration of its kind. Nothing is locked over a fork, so that no fork ever waits.
const int ProcessGeneration::registered_ =
    pthread_atfork(nullptr, nullptr, [] { current_.fetch_add(1, std::memory_order_relaxed); });

}  // namespace tevra::osa
