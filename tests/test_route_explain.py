import math

import pytest

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


@pytest.mark.parametrize("op", ["fft", "rfft", "istft"])
def test_schedule_and_bluestein_flag_for_every_length(op):
    for n in range(1, 2500):
        e = explain(op, n, 1)
        frame_len = n // 2 if op != "fft" and n % 2 == 0 else n
        assert e["frame_len"] == frame_len, n
        assert math.prod(e["schedule"]) == frame_len, n
        pow2 = frame_len & (frame_len - 1) == 0
        wanted = not pow2 and largest_prime_factor(frame_len) > 6 * math.log2(2 * frame_len)
        assert e["bluestein"] == wanted, n
        assert (e["bluestein_m"] >= 2 * frame_len - 1) if wanted else e["bluestein_m"] == 0, n


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


@pytest.mark.parametrize("op, prec", [("fft", 1), ("fft", 2), ("rfft", 2)])
def test_long_lengths_split_in_two_levels(op, prec):
    n = 16384 if op == "fft" else 2 * 16384
    e = explain(op, n, prec)
    assert e["smem"] > e["smem_cap"]
    assert (e["core"], e["staged"]) == ("four_step", True)
    assert e["n1"] * e["n2"] == e["frame_len"] and e["n1"] <= e["n2"]


def test_without_a_device_the_cap_is_48k(run_python):
    code = "import ondrel._rocm as r; e = r.route_explain('fft', 8192, 1, 3); print(e['smem_cap'], e['core'], e['n1'])"
    proc = run_python(code, **NO_HIP)
    assert proc.returncode == 0, proc.stderr
    assert proc.stdout.split() == ["49152", "four_step", "64"]


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
