"""Checks that print themselves: one line each as it is made, and a count at the end."""

import dataclasses
import sys
import time


@dataclasses.dataclass
class Checks:
    passed: int = 0
    failed: int = 0

    def check(self, what: str, is_so: bool, seen: object = "") -> bool:
        """Says whether `what` holds; `seen` is shown where it doesn't."""
        self.passed += is_so
        self.failed += not is_so
        print(f"ok    {what}" if is_so else f"FAIL  {what}: saw {seen}", flush=True)
        return is_so

    def equal(self, what: str, seen: object, expected: object) -> bool:
        return self.check(what, seen == expected, f"{seen!r} instead of {expected!r}")

    def eventually(self, what: str, condition, seconds: float = 5) -> bool:
        """Checks something that another process brings about; `condition` gives (is it so, seen)."""
        deadline = time.monotonic() + seconds
        while not (outcome := condition())[0] and time.monotonic() < deadline:
            time.sleep(0.01)
        return self.check(what, *outcome)

    def conclude(self) -> int:
        """Prints the closing line and gives the exit status. No check at all is no success."""
        print(f"{self.passed} passed, {self.failed} failed")
        sys.stdout.flush()
        return 0 if self.failed == 0 and self.passed > 0 else 1
