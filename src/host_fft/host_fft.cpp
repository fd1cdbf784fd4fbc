#include "host_fft/host_fft.hpp"

#include <stdexcept>
#include <string>

#include "host_fft/drivers.hpp"

namespace ondrel::host {

template <class T>
void host_fft(const T* in, T* out, int64_t rows, int32_t n, bool inverse) {
  if (n < 1) throw std::invalid_argument("host_fft: length " + std::to_string(n) + " is below 1");
  if (rows < 1) return;
  switch (host_route(n)) {
    case HostRoute::bluestein:
      bluestein_fft(in, out, rows, n, inverse);
      return;
    case HostRoute::mixed:
      mixed_fft(in, out, rows, n, inverse);
      return;
    case HostRoute::plane:
      plane_fft(in, out, rows, n, inverse);
      return;
  }
}

template void host_fft<double>(const double*, double*, int64_t, int32_t, bool);
template void host_fft<float>(const float*, float*, int64_t, int32_t, bool);

}  // namespace ondrel::host
