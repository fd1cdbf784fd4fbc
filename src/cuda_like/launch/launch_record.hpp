#pragma once
// The one road from a family's decision to a running kernel:
//   route -> KernelPlan (key, entry, geometry, parameters, text)
//         -> LaunchRecord (the compiled function and the same geometry)
//         -> KernelArgs (values by parameter name) -> checked launch.
// Records of one-kernel routes are kept per thread, so the hot path of a
// repeated shape is one hash lookup and one launch, without a lock.
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "codegen/kernel_sig.hpp"
#include "cuda_like/launch/kernel_args.hpp"
#include "cuda_like/tune/tuned_table.hpp"
#include "rocm/hip_api.hpp"

namespace ondrel {

// One kernel as a decision leaves it: everything but the data. The text is
// written only when no cache has the key.
struct KernelPlan {
  std::string key;    // kernel cache key, and the name a failed launch gives
  std::string entry;  // the entry function inside the text
  uint32_t threads = 0;
  uint64_t shared_bytes = 0;
  int32_t rows_per_block = 1;
  std::vector<codegen::KernelParam> params;  // the head the text declares
  std::function<std::string()> text;
};

struct LaunchRecord {
  hip_dl::hipFunction_t fn = nullptr;
  std::string key;
  std::string entry;
  uint32_t threads = 0;
  uint32_t shared_bytes = 0;
  int32_t rows_per_block = 1;
  std::vector<codegen::KernelParam> params;
  const void* table = nullptr;  // the twiddle table of the row kernels, or null

  KernelArgs args() const { return KernelArgs(params); }
  // Blocks that cover `rows` rows.
  unsigned row_blocks(int64_t rows) const {
    return static_cast<unsigned>((rows + rows_per_block - 1) / rows_per_block);
  }
};

// A plan of 256-thread blocks, the shape of the element-wise and row
// kernels that take their work from the grid alone.
KernelPlan flat_plan(std::string key, std::string entry, codegen::KernelParams params,
                     std::function<std::string()> text, uint64_t shared_bytes = 0);

// The compiled kernel of a plan on `device` (current): a cache hit or the
// plan's text compiled.
LaunchRecord compiled(const KernelPlan& plan, int device);

// The checked launch of a record with `args` complete. A grid.y above 65535
// fails before any HIP call with "<entry>: batch exceeds grid.y limit".
void launch(const LaunchRecord& rec, unsigned grid_x, unsigned grid_y, KernelArgs& args,
            hip_dl::hipStream_t stream);

// Rows on the grid's y axis go in chunks of at most 65535; `body` gets the
// first row and the count of each chunk.
constexpr int64_t kMaxGridRows = 65535;
void for_row_chunks(int64_t rows, const std::function<void(int64_t start, int64_t count)>& body);

// The key of a record under a generation of the tuned table.
uint64_t record_hash(uint64_t key, uint64_t generation);

// Records of one family and instantiation, found only under the tuning
// generation they were stored in: a hint or a clear moves the generation,
// and records of older ones are never found again. `Record` is the family's
// record: a LaunchRecord, or a record of its own that holds one.
template <class Record = LaunchRecord>
class LaunchTable {
 public:
  // Under the current shape_epoch; null when absent.
  const Record* find(uint64_t key) const {
    const uint64_t generation = shape_epoch();
    auto it = records.find(record_hash(key, generation));
    if (it == records.end() || it->second.key != key || it->second.generation != generation) return nullptr;
    return &it->second.record;
  }
  void store(uint64_t key, const Record& record) {
    const uint64_t generation = shape_epoch();
    records[record_hash(key, generation)] = Entry{key, generation, record};
  }

 private:
  // The hash alone may coincide for two shapes or generations: an entry
  // keeps its key and generation, and only an exact match is found.
  struct Entry {
    uint64_t key;
    uint64_t generation;
    Record record;
  };
  std::unordered_map<uint64_t, Entry> records;
};

// One table per thread, family (a tag type), instantiation and record type,
// so that a repeated shape's hot path takes no lock.
template <class Family, class T, class Record = LaunchRecord>
LaunchTable<Record>& launch_records() {
  thread_local LaunchTable<Record> table;
  return table;
}

// The hot path of a family, written once: the stored record of `key` runs
// at once; on a miss `decide` makes one, which is kept unless `bypass` (a
// tuner's candidate, measured and forgotten) and run. `decide` returns an
// empty optional when it ran the call itself through several kernels of its
// own; its value type is the family's record.
template <class Family, class T, class Decide, class Run>
void run_record(uint64_t key, bool bypass, Decide&& decide, Run&& run) {
  using Record = typename std::invoke_result_t<Decide>::value_type;
  LaunchTable<Record>& table = launch_records<Family, T, Record>();
  if (!bypass)
    if (const Record* rec = table.find(key)) return run(*rec);
  const std::optional<Record> made = decide();
  if (!made) return;
  if (!bypass) table.store(key, *made);
  run(*made);
}

}  // namespace ondrel
