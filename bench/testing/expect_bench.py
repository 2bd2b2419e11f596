"""hmisvc_pytest's App.expect waiting for the last line of an application
that prints 1 and 10 MB of 20-byte lines first: the time grows with the
output, not with its square. No driver needed:

    PYTHONPATH=python python3 bench/testing/expect_bench.py
"""
import time

from hmisvc_pytest.app import App

for megabytes in (1, 10):
    started = time.monotonic()
    app = App(f"yes 0123456789abcdefghi | head -c {megabytes * 1000 * 1000}; echo; echo done")
    app.expect("done", timeout=3600)
    print(f"ExpectAfterOutput/{megabytes} MB: {time.monotonic() - started:.2f} s", flush=True)
    app.stop()
