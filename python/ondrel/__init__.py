"""ondrel: the GPU runtime of the ondrel audio library.

FFTs of every length, STFTs and their inverses, mel spectrograms, cepstra,
spectral features, constant-Q transforms, convolutions, recursive filters and
Griffin-Lim, computed by kernels that are written and compiled at run time.
The computation lives in the extension module `ondrel._rocm`; importing this
package first chooses the HIP runtime that module will find (see
ONDREL_RUNTIME in the README). `ondrel.tensors` takes framework tensors in the
resident calls, and `ondrel.torch` (the `torch` extra) trains through the
adjoints with torch's autograd.
"""

from __future__ import annotations

import os
from importlib import metadata
from pathlib import Path

from . import _runtime_choice

try:
    __version__ = metadata.version("ondrel")
except metadata.PackageNotFoundError:
    __version__ = "0+unknown"

runtime, _updates = _runtime_choice.choose(os.environ, Path(__file__).parent)
os.environ.update(_updates)
del _updates

from .cqt import CqtPlan, cqt_plan, icqt_cg  # noqa: E402  (after the runtime choice, like everything else)
from . import _progress  # noqa: E402

_progress.install()

__all__ = ["__version__", "runtime", "CqtPlan", "cqt_plan", "icqt_cg"]
