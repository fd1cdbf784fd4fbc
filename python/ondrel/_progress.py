"""The display the package puts on the tuners' progress hook.

A tuner calls the hook after each candidate. Runs shorter than about two
seconds show nothing, so short tunings and test suites stay quiet; a longer
run shows a tqdm bar when tqdm can be imported, else one plain line on
stderr, rewritten in place on a terminal and repeated every few seconds
otherwise. ONDREL_PROGRESS=0 turns the display off.
"""

from __future__ import annotations

import os
import sys
import time
from typing import Callable, TextIO

THRESHOLD_S = 2.0  # a run shows nothing before it has lasted this long
INTERVAL_S = 5.0  # between plain lines where they cannot be rewritten


def enabled() -> bool:
    return os.environ.get("ONDREL_PROGRESS", "1").strip() != "0"


def _tqdm_class():
    try:
        from tqdm import tqdm
    except ImportError:
        return None
    return tqdm


def _outcome_text(outcome) -> str:
    return f"{outcome:.4g} ms" if isinstance(outcome, float) else str(outcome)


class Display:
    """A progress hook: `display(tuner, index, total, words, outcome)`."""

    def __init__(self, stream: TextIO | None = None, clock: Callable[[], float] = time.monotonic,
                 threshold: float = THRESHOLD_S, interval: float = INTERVAL_S, bar_class=None):
        self._stream = stream
        self._clock = clock
        self._threshold = threshold
        self._interval = interval
        self._bar_class = bar_class
        self._tuner = None
        self._start = 0.0
        self._bar = None
        self._last_line = None
        self._width = 0

    @property
    def stream(self) -> TextIO:
        return self._stream if self._stream is not None else sys.stderr

    def __call__(self, tuner: str, index: int, total: int, words: tuple, outcome) -> None:
        now = self._clock()
        if tuner != self._tuner or index == 0:
            self._finish()
            self._tuner, self._start = tuner, now
        if not enabled() or now - self._start < self._threshold:
            return
        text = f"{tuner}: candidate {index + 1}/{total} {tuple(words)} {_outcome_text(outcome)}"
        bar_class = self._bar_class if self._bar_class is not None else _tqdm_class()
        if bar_class is not None:
            self._show_bar(bar_class, tuner, index, total, text)
        else:
            self._show_line(now, text, index + 1 == total)
        if index + 1 == total:
            self._finish()
            self._tuner = None

    def _show_bar(self, bar_class, tuner: str, index: int, total: int, text: str) -> None:
        if self._bar is None:
            self._bar = bar_class(total=total, desc=tuner, file=self.stream, leave=False)
        self._bar.update(index + 1 - self._bar.n)
        self._bar.set_postfix_str(text.split(" ", 3)[-1], refresh=True)

    def _show_line(self, now: float, text: str, last: bool) -> None:
        stream = self.stream
        if stream.isatty():
            stream.write("\r" + text.ljust(self._width))
            self._width = len(text)
            if last:
                stream.write("\n")
        elif last or self._last_line is None or now - self._last_line >= self._interval:
            stream.write(text + "\n")
            self._last_line = now
        stream.flush()

    def _finish(self) -> None:
        if self._bar is not None:
            self._bar.close()
            self._bar = None
        self._last_line = None
        self._width = 0


def install() -> None:
    """Puts a Display on the module's hook, unless ONDREL_PROGRESS=0."""
    from . import _rocm

    _rocm._set_tune_progress(Display() if enabled() else None)
