# The kplc package against the simulator: typed values, errors by cause,
# sessions side by side, a serve process that dies.
import json
import os
import signal
import subprocess
from pathlib import Path

import pytest

import kplc

DEMO = Path(__file__).resolve().parents[2] / "examples" / "demo.csv"
pytestmark = pytest.mark.kplc_sim(tags=str(DEMO), timeout=1)

# (name, value written, value read back): the read's Python types must match exactly.
ROUND_TRIPS = [
    ("Counter", -123456, -123456),
    ("Setpoint", 65535, 65535),
    ("Ratio", 2, 2.0),                      # REAL: a whole number still comes back a float
    ("Precise", 0.1, 0.1),
    ("Lamp", True, True),
    ("Motor.Run", 1, True),
    ("Title", "AUTO", "AUTO"),
    ("Motor.Name", "Grüße €", "Grüße €"),   # UTF-8 through and back
    ("Levels[2..4]", [7, 8, 9], [7, 8, 9]),
    ("Grid", [[1, 2, 3, 4], [5, 6, 7, 8], [9, 10, 11, 12]], [[1, 2, 3, 4], [5, 6, 7, 8], [9, 10, 11, 12]]),
    ("Weights[1..2]", (0.5, -1), [0.5, -1.0]),
    ("Relays[3..5]", [True, False, True], [True, False, True]),
    ("Lines[1..2]", ["a,b", "[c]"], ["a,b", "[c]"]),  # texts are never split or parsed
    ("Main.Step", 7, 7),
]


def same_typed(a, b):
    if isinstance(a, list):
        return isinstance(b, list) and len(a) == len(b) and all(map(same_typed, a, b))
    return type(a) is type(b) and a == b


def test_values_come_back_typed(plc):
    plc.write({name: value for name, value, _ in ROUND_TRIPS})
    got = plc.read(*(name for name, _, _ in ROUND_TRIPS))
    for (name, _, expected), value in zip(ROUND_TRIPS, got):
        assert same_typed(value, expected), f"{name}: {value!r}"
    assert plc.read(3) == 65535  # a tag id names line 3, Setpoint


@pytest.mark.parametrize("call, error", [
    pytest.param(lambda p: p.read("Speed", "Nope"), kplc.UnknownTag, id="unknown-tag"),
    pytest.param(lambda p: p.read("Levels[8..10]"), kplc.UnknownTag, id="range-outside"),
    pytest.param(lambda p: p.write(Speed=5, Counter="x"), kplc.BadValue, id="bad-value"),
    pytest.param(lambda p: p.write(Speed=70000), kplc.BadValue, id="out-of-range"),
    pytest.param(lambda p: p.write(Levels=[1, 2]), kplc.BadValue, id="too-few-elements"),
    pytest.param(lambda p: p.write(Ratio=float("nan")), kplc.BadValue, id="nan"),
    pytest.param(lambda p: p.read("Speed"), kplc.NoAnswer, marks=pytest.mark.kplc_sim(fault="silent"), id="silent"),
    pytest.param(lambda p: p.read("Speed"), kplc.NoAnswer, marks=pytest.mark.kplc_sim(fault="refuse"), id="refuse"),
    pytest.param(lambda p: p.read("Speed"), kplc.ReplyTooShort, marks=pytest.mark.kplc_sim(truncate=20),
                 id="truncate"),
    pytest.param(lambda p: p.read("Speed"), (kplc.ReplyTooShort, kplc.ReplyNotUsable),
                 marks=pytest.mark.kplc_sim(fault="garbage"), id="garbage"),
])
def test_errors_by_cause(plc, call, error):
    with pytest.raises(error) as raised:
        call(plc)
    assert isinstance(raised.value, kplc.Error) and raised.value.message
    if raised.type is kplc.BadValue:  # the batch is checked whole: nothing of it was sent
        assert plc.read("Speed") == 0


def test_unreachable_plc_and_unusable_tag_file(tmp_path):
    with kplc.Simulator(DEMO) as sim:
        port = sim.port
    # verbose: every driver line goes out, none of them into the answers
    with kplc.connect(port=port, tags=DEMO, timeout=1, verbose=True) as plc, pytest.raises(kplc.CannotConnect):
        plc.read("Speed")
    (tmp_path / "empty.csv").write_text("no line feed")
    with pytest.raises(kplc.TagFileError):
        kplc.connect(port=port, tags=tmp_path / "empty.csv")


def test_two_sessions_side_by_side_leave_the_working_folder(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    with kplc.simulate(DEMO) as a, kplc.simulate(DEMO) as b:
        a.write(Counter=1, Title="a")
        b.write(Counter=2, Title="b")
        assert (a.read("Counter", "Title"), b.read("Counter", "Title")) == ([1, "a"], [2, "b"])
        assert a.simulator.memory("Counter") == 1 and b.simulator.memory("Counter") == 2
    assert Path.cwd() == tmp_path and list(tmp_path.iterdir()) == []


def test_a_dead_serve_process_is_an_exception(plc):
    assert plc.read("Speed") == 0
    os.kill(plc.pid, signal.SIGKILL)
    with pytest.raises(kplc.SessionLost, match="signal 9"):
        plc.read("Speed")
    plc.close()


def test_watch_yields_changes_only(plc, kplc_sim):
    seen = []
    for change in plc.watch("Speed", "Lamp", interval=0.01, count=4):
        seen.append((change.name, change.value))
        if len(seen) == 2:
            kplc_sim.memory("Speed")  # a second client does not disturb the watch
            plc.write(Speed=9)
    assert seen == [("Speed", 0), ("Lamp", False), ("Speed", 9)]


def test_protocol_survives_bad_requests(kplc_sim):
    # Raw lines, as another language would send them: each gets its answer, in order.
    lines = ['{"op":"read","names":["Speed"],"id":"a"}', "not json", "[1]", '{"op":"fly"}',
             '{"op":"read","names":"Speed"}', '{"op":"check","file":"relative.csv"}',
             '{"op":"write","values":{"Title":"\\ud83d\\ude00"}}', "[" * 100 + "]" * 100,
             '{"op":"write","values":{"Title":"\\ud83d"}}',
             '{"op":"read","names":["Title"],"id":7}']
    out = subprocess.run([os.environ.get("KPLC_TOOL", "kplc"), "serve", "--port", str(kplc_sim.port),
                          "--tags", str(DEMO)], input="\n".join(lines) + "\n", capture_output=True, text=True,
                         timeout=30).stdout.splitlines()
    answers = [json.loads(line) for line in out[1:]]
    assert [a.get("error", {}).get("cause", "ok") for a in answers] == ["ok"] + ["bad_request"] * 5 + ["ok"] + ["bad_request"] * 2 + ["ok"]
    assert answers[0]["id"] == "a" and answers[-1] == {"id": 7, "ok": True, "values": [
        {"name": "Title", "type": "STRING(20)", "value": "😀"}]}


@pytest.mark.parametrize("expect", [
    pytest.param(4, id="answers"),
    pytest.param(kplc.DriverError, marks=pytest.mark.kplc_sim(fault="silent"), id="silent"),
])
def test_direct_session_skips_the_relay(kplc_sim, expect):
    # Without the relay the driver's result code is all there is: no cause.
    with kplc_sim.connect(direct=True) as plc:
        if expect == 4:
            plc.write(Speed=4)
            assert plc.read("Speed") == 4
        else:
            with pytest.raises(expect):
                plc.read("Speed")
