"""The long stops of test_stopped_process.py, a minute each."""
import test_stopped_process
from kit import main
from test_stopped_process import StoppedForAWhile  # noqa: F401  found by main()

test_stopped_process.SECONDS = 60

if __name__ == "__main__":
    main()
