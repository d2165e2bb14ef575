"""What the tests of the packages share. The system tests' support modules are part of this package too."""

from pathlib import Path

__path__.append(str(Path(__file__).resolve().parents[2] / "system" / "support"))
