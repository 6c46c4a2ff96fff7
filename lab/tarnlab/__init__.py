"""Virtual access points for trying and testing tarn on one Linux machine."""

from .lab import Ap, Lab, default_build_dir, teardown_all  # noqa: F401
from .nsutil import LabError  # noqa: F401
