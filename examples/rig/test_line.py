# Checks of a line's PLC program against the simulator, run with plain `pytest`
# (the kplc package installed: its pytest plugin starts the simulator).
import pytest

import kplc

pytestmark = pytest.mark.kplc_sim(tags="../demo.csv")


def test_recipe_download(kplc_sim, plc):  # a simulator with this tag file, and a session to it
    plc.write(Levels=[1, 2, 3, 4, 5, 6, 7, 8, 9, 10])
    assert kplc_sim.memory("Levels") == [1, 2, 3, 4, 5, 6, 7, 8, 9, 10]


# The field capture becomes the PLC: at site 4 the alarm was up at 1200 rpm.
@pytest.mark.kplc_sim(tags="../demo.csv", replay="field/site4.pcap")
def test_site4_alarm(plc):
    assert plc.read("Alarm", "Speed") == [True, 1200]


@pytest.mark.kplc_sim(tags="../demo.csv", fault="silent", timeout=1)
def test_timeout_is_reported(plc):
    with pytest.raises(kplc.NoAnswer):
        plc.read("Speed")
