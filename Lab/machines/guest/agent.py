"""Inside a machine: runs the commands that its host sends, and says what they wrote and how they ended.

A line of JSON each way, over a virtio port. From the host: `run` (words for the shell), `seconds` (how long it
may take), `patience` (how many times longer than usual things may take in there). To the host: `ready` once the machine is up, then `output` as it comes, then `status`.
"""

import json
import os
import selectors
import signal
import subprocess
import time

PORT = "/dev/virtio-ports/vantry.agent"
FOLDER = "/run/lab/project"
OVERDUE = 124


def main() -> None:
    port = os.open(PORT, os.O_RDWR)

    def say(**message) -> None:
        data = (json.dumps(message) + "\n").encode()
        while data:
            data = data[os.write(port, data):]

    state = subprocess.run(["systemctl", "is-system-running", "--wait"], capture_output=True, text=True)
    say(ready=state.stdout.strip())
    with os.fdopen(os.dup(port), "rb", buffering=0) as requests:
        while line := requests.readline():
            request = json.loads(line)
            say(status=run(request["run"], request["seconds"], request["patience"], say))


def run(command: str, seconds: float, patience: float, say) -> int:
    process = subprocess.Popen(["/bin/bash", "-c", command], cwd=FOLDER, stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True,
                               env={**os.environ, "HOME": "/root", "PYTHONDONTWRITEBYTECODE": "1",
                                    "LAB_PATIENCE": str(patience)})
    deadline = time.monotonic() + seconds
    with selectors.DefaultSelector() as selector:
        selector.register(process.stdout, selectors.EVENT_READ)
        while time.monotonic() < deadline:
            # What it left running may hold its output open: once it has ended, what is there is all.
            ended = process.poll() is not None
            if selector.select(0 if ended else 0.1):
                output = os.read(process.stdout.fileno(), 1 << 14)
                if not output:
                    return process.wait(max(0.1, deadline - time.monotonic()))
                say(output=output.decode(errors="replace"))
            elif ended:
                return process.returncode
    os.killpg(process.pid, signal.SIGKILL)
    process.wait()
    say(output=f"\nended after {seconds:.0f} seconds\n")
    return OVERDUE


if __name__ == "__main__":
    main()
