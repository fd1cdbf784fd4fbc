#pragma once
// The host FFT's worker threads: the thread setting, the pool and
// `parallel_for`.
#include <cstdint>
#include <functional>

namespace ondrel::host {

// The rule of the two variables, given their values (null when unset):
// ONDREL_NUM_THREADS when it parses in base 10 and is at most 4096 as
// unsigned, 0 included; else OMP_NUM_THREADS when it parses to 1..4096;
// else 0, which means automatic.
int32_t parse_thread_setting(const char* ondrel_value, const char* omp_value);

// Physical cores of this machine, else the standard library's hardware
// concurrency, else 1. Computed once.
int32_t default_threads();

// The setting read from the environment on first use, unless replaced.
int32_t thread_setting();
void set_thread_setting(int32_t value);
// The setting with 0 resolved to `default_threads`.
int32_t effective_threads();

// Rows per task of a batch: all rows when single-threaded, else enough tasks
// to keep every thread busy without tasks above `cap` rows.
int64_t task_rows(int64_t cap, int64_t rows);

// Runs task(i) for i below `count`, on the pool when more than one thread is
// set and the caller is not a pool thread itself. The first exception of a
// task is thrown again here once every thread has stopped.
void parallel_for(int64_t count, const std::function<void(int64_t)>& task);

}  // namespace ondrel::host
