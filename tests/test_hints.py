import pytest

NO_HIP = {
    "ONDREL_RUNTIME": "auto",
    "ONDREL_HIP_PATH": "/nonexistent/libamdhip64.so",
    "ONDREL_HIPRTC_PATH": "/nonexistent/libhiprtc.so",
}


def test_epoch_moves_once_per_hint_and_clear(run_python):
    code = """
import ondrel._rocm as r
seen = [r.shape_epoch()]
r.shape_hint_clear()                      # an empty table still moves the epoch
seen.append(r.shape_epoch())
r.set_shape_hint("stft", 1024, 256, True, 32, "magnitude", 0, 0, 8, 1, 128, 0)
seen.append(r.shape_epoch())
r.set_shape_hint("stft", 1024, 256, True, 32, "magnitude", 0, 0, 8, 1, 128, 0, var=3)
seen.append(r.shape_epoch())
r.set_shape_hint("fft", 512, 0, False, 1, "", 0, 0, 0, 0, 0, 0)  # width 1: stored, read by nobody
seen.append(r.shape_epoch())
r.shape_hint_clear()
seen.append(r.shape_epoch())
print(seen, type(seen[-1]).__name__)
"""
    proc = run_python(code, **NO_HIP)
    assert proc.returncode == 0, proc.stderr
    assert proc.stdout.strip() == "[0, 1, 2, 3, 4, 5] int"


@pytest.mark.parametrize("op", ["", "STFT", "ffts", "griffinlim"])
def test_unknown_op_is_refused_without_moving_the_epoch(op):
    from ondrel import _rocm

    before = _rocm.shape_epoch()
    with pytest.raises(ValueError) as err:
        _rocm.set_shape_hint(op, 1024, 256, True, 32, "power", 0, 0, 0, 0, 0, 0)
    assert str(err.value) == "set_shape_hint: op must be stft/istft/mel/fft/rfft/cqt"
    assert _rocm.shape_epoch() == before


@pytest.mark.parametrize("op", ["stft", "istft", "mel", "fft", "rfft", "cqt"])
def test_every_op_word_is_accepted(op):
    from ondrel import _rocm

    before = _rocm.shape_epoch()
    assert _rocm.set_shape_hint(op, 400, 100, False, 64, "db", 40, 0, 4, 2, 64, 1, 8) is None
    assert _rocm.shape_epoch() == before + 1

