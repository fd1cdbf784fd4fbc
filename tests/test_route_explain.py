import math

import pytest

from conftest import same_runtime_env
from fft_cases import SHARED_LIMIT
from ondrel import _codegen

NO_HIP = {
    "ONDREL_RUNTIME": "auto",
    "ONDREL_HIP_PATH": "/nonexistent/libamdhip64.so",
    "ONDREL_HIPRTC_PATH": "/nonexistent/libhiprtc.so",
}


def largest_prime_factor(n: int) -> int:
    largest, d = 1, 2
    while d * d <= n:
        while n % d == 0:
            largest, n = d, n // d
        d += 1
    return n if n > 1 else largest


def explain(*args, **kwargs):
    from ondrel import _rocm

    return _rocm.route_explain(*args, **kwargs)


def test_istft_answers_name_the_route_a_call_takes():
    for n in range(2, 2500):
        e = explain("istft", n, 1)
        frame_len = n // 2 if n % 2 == 0 else n
        assert e["frame_len"] == frame_len and math.prod(e["schedule"]) == frame_len, n
        keys = [k for k, _ in _codegen.istft_kernel_texts(n, max(1, n // 4), True, "boxcar", 1, 4)]
        assert e["staged"] == keys[0].startswith("ciz"), n
        library = listed_route("rfft" if n % 2 else "fft", n if n % 2 else frame_len, 1)
        assert e["bluestein"] == (e["staged"] and library == "bluestein"), n


def listed_route(op: str, n: int, prec: int) -> str:
    """The route whose kernels a call compiles, as the kernel-text listing names it."""
    text = _codegen.fft_kernel_text if op == "fft" else _codegen.rfft_kernel_text
    try:
        text(n, prec, False, SHARED_LIMIT)
    except ValueError as e:
        return "bluestein" if "bluestein" in str(e) else "four_step"
    return "native"


@pytest.mark.parametrize("op", ["fft", "rfft"])
@pytest.mark.parametrize("prec", [1, 2])
def test_fft_answers_name_the_route_a_call_takes(op, prec):
    for n in list(range(1, 1200)) + [1938, 4913, 7000, 7429, 9960, 12108, 16384, 2**16, 40000]:
        e = explain(op, n, prec)
        route = listed_route(op, n, prec)
        assert e["bluestein"] == (route == "bluestein"), n
        assert (e["core"] in ("bluestein", "four_step")) == (route != "native"), n
        if route == "bluestein":
            assert e["core"] == "bluestein" and e["bluestein_m"] >= 2 * n - 1, n
        if route == "four_step":
            assert e["core"] == "four_step" and e["staged"] and e["n1"] * e["n2"] == e["frame_len"], n
        else:
            assert "n1" not in e and not e["staged"], n


DIFFERED = [("fft", 7429, 1, "bluestein"), ("fft", 1938, 1, "bluestein"), ("fft", 4913, 2, "bluestein"),
            ("fft", 12108, 1, "bluestein"), ("rfft", 69, 1, "bluestein"), ("rfft", 9960, 1, "four_step"),
            ("rfft", 7000, 2, "four_step"), ("fft", 8192, 1, "cooley_tukey")]


def test_lengths_whose_summary_used_to_differ_from_the_call(run_python):
    # Found on a 64 KiB device, where they are asked again whatever this run's limit.
    code = f"import ondrel._rocm as r\nfor op, n, p, _ in {DIFFERED!r}: print(r.route_explain(op, n, p)['core'])"
    proc = run_python(code, **same_runtime_env(65536))
    assert proc.returncode == 0, proc.stderr
    assert proc.stdout.split() == [core for *_, core in DIFFERED]


def test_fft_answers():
    e = explain("fft", 1024, 1)
    assert e == {
        "op": "fft",
        "n_fft": 1024,
        "odd": False,
        "pow2": True,
        "frame_len": 1024,
        "schedule": [16, 8, 8],
        "rader_prime": 0,
        "bluestein": False,
        "bluestein_m": 0,
        "smem": 8192,
        "smem_cap": e["smem_cap"],
        "core": "cooley_tukey",
        "staged": False,
    }
    assert explain("fft", 1024, 2)["smem"] == 16384
    m = explain("fft", 34, 1)
    assert (m["core"], m["schedule"], m["rader_prime"], m["smem"]) == ("mixed", [2, 17], 17, (34 + 36) * 8)
    b = explain("fft", 41, 2)
    assert (b["core"], b["bluestein"], b["bluestein_m"], b["staged"]) == ("bluestein", True, 84, False)
    # The double real FFT decides even lengths against the 48 KiB every device has.
    r = explain("rfft", 7000, 2)
    assert (r["smem"], r["smem_cap"]) == (3500 * 16, 49152)


@pytest.mark.parametrize("op, prec", [("fft", 1), ("fft", 2), ("rfft", 2)])
def test_long_lengths_split_in_two_levels(op, prec):
    # Twice the shortest power of two whose row exceeds the device's shared
    # memory: just past the limit a core with a smaller exchange can still fit.
    n = 2 << (SHARED_LIMIT // (8 * prec)).bit_length()
    n = n if op == "fft" else 2 * n
    e = explain(op, n, prec)
    assert e["smem"] > e["smem_cap"]
    assert (e["core"], e["staged"]) == ("four_step", True)
    assert e["n1"] * e["n2"] == e["frame_len"] and e["n1"] <= e["n2"]


def test_without_a_device_the_cap_is_48k(run_python):
    code = "import ondrel._rocm as r; e = r.route_explain('fft', 16384, 1, 3); print(e['smem_cap'], e['core'], e['n1'])"
    proc = run_python(code, **NO_HIP)
    assert proc.returncode == 0, proc.stderr
    assert proc.stdout.split() == ["49152", "four_step", "128"]


@pytest.mark.parametrize(
    "n, core, staged, two_for_one",
    [
        (1024, "cooley_tukey", False, False),
        (9, "mixed", False, True),
        (720, "mixed", False, False),
        (82, "four_step", True, False),
    ],
)
def test_istft_answers(n, core, staged, two_for_one):
    e = explain("istft", n, 1)
    assert (e["core"], e["staged"], e["two_for_one"]) == (core, staged, two_for_one)


def test_rfft_reports_the_half_length():
    e = explain("rfft", 1000, 1)
    assert (e["frame_len"], e["schedule"], e["core"], e["odd"], e["pow2"]) == (500, [5, 5, 5, 4], "mixed", False, False)


@pytest.mark.parametrize("prec", [7, -1, 3, 0])
def test_other_precision_codes_count_as_single(prec):
    assert explain("fft", 720, prec) == explain("fft", 720, 1)


@pytest.mark.parametrize("op", ["FFT", "cqt", "", "stft "])
def test_unknown_op(op):
    with pytest.raises(ValueError) as err:
        explain(op, 512, 1)
    assert str(err.value) == "route_explain: unknown op " + op
