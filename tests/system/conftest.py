"""System tests of tarn: real daemons in network and mount namespaces.

Run as root (/usr/bin/python3 -m pytest tests/system); the binaries come from $TARN_BUILD_DIR
(default <repo>/build). Without root every test that needs namespaces is skipped, with the reason.

Fixtures: `node` is one AP (ap1) with its own namespaces, stand-ins and an uplink, but no bridge,
no driver simulator and no daemon (the test starts tarn: node.start_daemon(...), node.tarn(...));
`make_lab(scenario, **options)` gives a running tarnlab.Lab (options as for tarnlab.Lab). What a
test builds is removed after it, on failure, on Ctrl-C and at exit; labs left by a killed test
run are removed when the next run starts.
"""

import itertools
import os
import signal
import sys

import pytest

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(REPO, "lab"))
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from tarnlab import lab as labmod  # noqa: E402
from tarnlab import nsutil  # noqa: E402

ROOT_REASON = "system tests need root: they create network and mount namespaces"
_lab_numbers = itertools.count(1)


def _interrupt(_signum, _frame):
    # pytest unwinds on KeyboardInterrupt and runs every fixture finalizer on its way out.
    raise KeyboardInterrupt


def pytest_configure(config):
    if nsutil.is_root():
        for name in labmod.stale_test_labs():
            labmod.Lab(1, name=name).down()
    signal.signal(signal.SIGTERM, _interrupt)
    signal.signal(signal.SIGHUP, _interrupt)


def pytest_collection_modifyitems(config, items):
    if nsutil.is_root():
        return
    skip = pytest.mark.skip(reason=ROOT_REASON)
    for item in items:
        item.add_marker(skip)


@pytest.hookimpl(tryfirst=True, hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    setattr(item, f"report_{report.when}", report)


def unique_lab_name():
    """A lab name unique to this run, from which a later run can tell the run is gone."""
    return f"t{os.getpid()}x{next(_lab_numbers)}"


def _dump_logs(request, labs):
    report = getattr(request.node, "report_call", None)
    if report is None or not report.failed:
        return
    for lab in labs:
        for ap in lab.aps:
            text = ap.log_tail(40)
            if text:
                sys.stderr.write(f"\n----- {lab.name}/{ap.name} tarn log (last lines) -----\n"
                                 f"{text}\n")


@pytest.fixture
def make_lab(request):
    labs = []

    def make(scenario=2, **options):
        # The tests read the daemons' debug lines: debug logging on unless a scenario says.
        scenario = {"count": scenario} if isinstance(scenario, int) else dict(scenario)
        scenario.setdefault("debug", True)
        lab = labmod.Lab(scenario, name=unique_lab_name(), owner_pid=os.getpid(), **options)
        labs.append(lab)
        return lab.up()

    yield make
    _dump_logs(request, labs)
    for lab in labs:
        lab.down()


@pytest.fixture
def node(make_lab):
    lab = make_lab({"count": 1, "hears": "none"}, bridge=False, simulators=False,
                   daemons=False)
    ap = lab.ap("ap1")
    if not os.access(lab.tarn_binary, os.X_OK):
        pytest.fail(f"no tarn executable at {lab.tarn_binary}: build first or set "
                    f"TARN_BUILD_DIR")
    yield ap
    ap.stop_daemon()
