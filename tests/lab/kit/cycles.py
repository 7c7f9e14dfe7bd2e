"""Waiting in the daemon's own cycles: a deadline that grows with a slow machine or a sanitizer."""
from .expect import expect, text_of

# A target that answers is asked in every second cycle, and its answer may come in the next one.
FEW = 5


def patience_s(cycles):
    """How long so many cycles may take before the daemon is said to stand still."""
    return 10 + 5 * cycles


class Cycles:
    """Counts the cycles of the slowest worker, by the keep-alives."""

    def __init__(self, keep_alives):
        self._keep_alives = keep_alives

    def count(self):
        return self._keep_alives.cycles()

    def pass_by(self, number):
        """Waits until so many more cycles have ended."""
        end = self.count() + number
        expect(lambda: self.count() >= end, patience_s(number), f"{number} cycles pass by")

    def expect(self, condition, within=FEW, what=""):
        """Returns the first true value of condition(); fails when more than `within` cycles have
        ended without one."""
        last = self.count() + within

        def settled():
            ended = self.count()  # before the look: what this cycle brings is still looked at
            value = condition()
            if not value and ended > last:
                raise AssertionError(f"not within {within} cycles: {what or 'see the traceback'}")
            return value

        return expect(settled, patience_s(within), what or f"{within} cycles")

    def never(self, condition, cycles, what=""):
        """Fails as soon as condition() is true before so many more whole cycles have passed, and
        where they do not pass: a daemon that stands still has proved nothing."""
        end = self.count() + cycles + 1  # the one that is under way is not whole

        def passed():
            ended = self.count() >= end  # before the look, which is then one behind the end
            if value := condition():
                raise AssertionError(f"happened ({value!r}): {text_of(condition, what)}")
            return ended

        expect(passed, patience_s(cycles), f"{cycles} cycles pass by")
