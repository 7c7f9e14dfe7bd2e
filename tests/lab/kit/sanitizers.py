"""Reports of the sanitizers: they fail a test, whichever program they come from."""

MARKS = ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "WARNING: ThreadSanitizer", "FATAL: ThreadSanitizer",
         "runtime error:")
# Options of the sanitizers' libraries. Of no effect in a plain build.
OPTIONS = ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS")


def has_report(text):
    return any(mark in text for mark in MARKS)


def check(text, program):
    """Fails where what a program said holds a report."""
    if has_report(text):
        raise AssertionError(f"sanitizer report of {program}:\n{text}")
