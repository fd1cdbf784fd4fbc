#pragma once
// The process-wide deterministic switch. Inverse-STFT and adjoint kernel
// configurations copy it when they are built, and it is part of their keys,
// so flipping it never invalidates anything already built.

namespace ondrel {

void set_deterministic(bool on);
bool deterministic();

}  // namespace ondrel
