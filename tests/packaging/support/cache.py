"""Where roots are kept between runs."""

import os
from pathlib import Path


def cache_folder():
    """The folder that scripts/common.sh calls cache; it exists afterwards."""
    base = os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache"
    folder = Path(os.environ.get("SSO_CACHE") or Path(base) / "sso-discovery-service")
    folder.mkdir(parents=True, exist_ok=True)
    return folder
