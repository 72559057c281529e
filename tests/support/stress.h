// Sizes of the multi-threaded stress tests: smaller under the sanitizers,
// which slow every atomic step by an order of magnitude.
#pragma once

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kStressItems = 20000;  // per thread
#else
constexpr int kStressItems = 100000;  // per thread
#endif
