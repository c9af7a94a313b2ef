"""Shared helpers for the end-to-end tests: run build/kep in a temporary directory."""
import os
import subprocess
from pathlib import Path

import pytest

SOURCE = Path(os.environ.get("KEP_SOURCE", Path(__file__).resolve().parents[2]))
KEP = Path(os.environ.get("KEP", SOURCE / "build" / "kep"))


def command_words():
    """Every command word kep knows (commands, then macros), as it lists them."""
    out = subprocess.run([str(KEP), "--list-commands"], capture_output=True, check=True, timeout=60)
    return out.stdout.decode().split()


class Result:
    def __init__(self, proc):
        self.returncode = proc.returncode
        self.stdout = proc.stdout.decode("utf-8", "replace")
        self.stderr = proc.stderr.decode("utf-8", "replace")

    def __repr__(self):
        return f"rc={self.returncode}\n--- stdout\n{self.stdout}\n--- stderr\n{self.stderr}"


class Kep:
    """Runs kep in one working directory, either on standard input or on a command file."""

    def __init__(self, workdir: Path):
        self.dir = workdir

    def stdin(self, text, env=None, timeout=120):
        proc = subprocess.run([str(KEP)], input=text.encode(), cwd=self.dir, capture_output=True,
                              timeout=timeout, env=self._env(env))
        return Result(proc)

    def script(self, text, *words, name="run.com", env=None, timeout=300):
        (self.dir / name).write_text(text)
        proc = subprocess.run([str(KEP), name, *words], cwd=self.dir, capture_output=True,
                              timeout=timeout, stdin=subprocess.DEVNULL, env=self._env(env))
        return Result(proc)

    def path(self, name):
        return self.dir / name

    @staticmethod
    def _env(extra):
        env = dict(os.environ)
        env.setdefault("KEP_HOME", str(SOURCE))
        if extra:
            env.update(extra)
        return env


@pytest.fixture
def kep(tmp_path):
    return Kep(tmp_path)
