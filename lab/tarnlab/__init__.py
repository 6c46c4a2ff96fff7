"""Virtual access points for trying and testing tarn on one Linux machine."""

from .ap import Ap  # noqa: F401
from .lab import Lab, default_build_dir, teardown_all  # noqa: F401
from .nsutil import LabError  # noqa: F401
