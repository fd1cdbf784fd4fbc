"""The README's framework examples run as written: the autograd ones on the
CPU runtime, the CUDA-tensor one on a GPU."""

from __future__ import annotations

import re
from pathlib import Path

import pytest

pytest.importorskip("torch", reason="the examples need PyTorch: run tools/setup test (it installs torch's CPU build) "
                                    "or pip install 'ondrel[torch]', then run these tests again")

README = Path(__file__).resolve().parents[1] / "README.md"


def examples(kind: str) -> list[str]:
    text = README.read_text()
    return re.findall(rf"<!-- example: {kind} -->\n```python\n(.*?)```", text, flags=re.S)


@pytest.mark.parametrize("index", range(len(examples("cpu"))))
def test_autograd_examples(index):
    exec(compile(examples("cpu")[index], f"README example {index}", "exec"), {})


@pytest.mark.gpu
@pytest.mark.parametrize("index", range(len(examples("gpu"))))
def test_cuda_tensor_examples(index):
    exec(compile(examples("gpu")[index], f"README GPU example {index}", "exec"), {})


def test_examples_are_found():
    assert len(examples("cpu")) == 2 and len(examples("gpu")) == 1
