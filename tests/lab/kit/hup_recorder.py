"""A stand-in for the routing daemon: writes one JSON line for every SIGHUP it gets.

Run as a program: hup_recorder.py FRAGMENT RECORD. Each line holds the monotonic time, the sender's
pid and the fragment's text at that moment.
"""
import json
import signal
import sys
import time


def text_of(path):
    try:
        with open(path, encoding="utf-8") as file:
            return file.read()
    except OSError:
        return None


def run(fragment, record):
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGHUP})
    with open(record, "a", encoding="utf-8", buffering=1) as file:
        print(json.dumps({"ready": True}), file=file)
        while True:
            info = signal.sigwaitinfo({signal.SIGHUP})
            print(json.dumps({"time_s": time.monotonic(), "sender": info.si_pid,
                              "fragment": text_of(fragment)}), file=file)


if __name__ == "__main__":
    run(sys.argv[1], sys.argv[2])
