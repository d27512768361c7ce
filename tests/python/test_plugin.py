# The pytest plugin as a user's project meets it: the ini default, the
# simulator's log in a failure's report, a simulator that cannot start, -n.
import shutil
from pathlib import Path

pytest_plugins = ["pytester"]

DEMO = Path(__file__).resolve().parents[2] / "examples" / "demo.csv"


def test_plugin_in_a_users_project(pytester):
    shutil.copy(DEMO, pytester.path / "plant.csv")
    pytester.makeini("[pytest]\nkplc_tags = plant.csv\n")
    pytester.makepyfile(test_rig="""
        import pytest

        def test_ini_tags(plc, kplc_sim):
            plc.write(Speed=3)
            assert kplc_sim.memory("Speed") == 3

        def test_fails(plc):
            assert plc.read("Speed") == 1

        @pytest.mark.kplc_sim(tags="missing.csv")
        def test_no_tag_file(kplc_sim):
            pass
    """)
    result = pytester.runpytest_subprocess("-n", "2", "-p", "no:cacheprovider")
    result.assert_outcomes(passed=1, failed=1, errors=1)
    result.stdout.fnmatch_lines(["*- kplc-sim log -*", "kplc-sim: connection 1 from 127.0.0.1:*"])
    result.stdout.fnmatch_lines(["*kplc-sim did not start*missing.csv*"])
