#pragma once
// The fixed opening lines of kernel bodies: which thread, frame, batch or
// element this is, and the clamped row pair of two-for-one kernels.
#include <string>

#include "codegen/kernel_writer.hpp"

namespace ondrel::codegen {

// tid, frame, batch of a one-frame-per-block kernel; frames past NF leave.
void frame_ids(KernelWriter& w);
// The packed form: TPF threads a frame, F frames a block.
void frame_ids_packed(KernelWriter& w);
// A flat element index `i` of 256-thread blocks, bounded by `bound`, then the
// optional line `extra`, then `row` from the grid's y axis.
void flat_ids(KernelWriter& w, const std::string& i, const std::string& bound, const std::string& row,
              const std::string& extra);
// Batch and frame from a flat `row` over NF frames.
void row_split(KernelWriter& w, const std::string& b, const std::string& f);
// Rows 2*batch and 2*batch+1, each clamped to the last row so that a lone
// last row pairs with a copy of itself.
void pair_rows(KernelWriter& w);

}  // namespace ondrel::codegen
