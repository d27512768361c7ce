# A session opened by hand, as a script against a real PLC would: here the
# PLC is the test's simulator (its port is the only thing the test adds).
from pathlib import Path

import kplc

PLANT = Path(__file__).parent.parent / "demo.csv"


def test_setpoint_and_speeds(kplc_sim):
    with kplc.connect("127.0.0.1", port=kplc_sim.port, tags=PLANT) as plc:
        plc.write(Ratio=42.5, Title="AUTO")
        assert plc.read("Ratio") == 42.5
        speeds = plc.read("Levels[0..3]")  # [int, int, int, int]
        assert speeds == [0, 0, 0, 0]
        plc.write(Alarm=True)
        for change in plc.watch("Alarm", interval=0.1):
            assert change.value is True
            break
