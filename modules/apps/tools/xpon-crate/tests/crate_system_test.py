#!/usr/bin/python3
"""System test of xpon-crate: the small example crate with the real programs.

Usage: crate_system_test.py TEST_CLASS XPON_CRATE EXAMPLES_DIR PROGRAM...

The programs (xpon-ipc-bus, xpon-board-emu, ...) are linked into a directory of their own that is
given to xpon-crate as --bin-dir. Exit status 77 means skipped (FUSE is not usable here); where
CI=true that is a failure instead, since CI provides FUSE.
"""

import errno
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

CRATE = None
EXAMPLES = None
PROGRAMS = []
SKIPPED = 77


def fuse_unavailable_reason():
    if not os.access("/dev/fuse", os.R_OK | os.W_OK):
        return "FUSE is not usable here (/dev/fuse), so the board emulator cannot run"
    if not os.access("/bin/fusermount3", os.X_OK):
        return "fusermount3 is not usable here (/bin/fusermount3), so the board emulator cannot be mounted"
    return ""


def mount_points():
    with open("/proc/self/mountinfo", encoding="utf-8") as info:
        return [line.split()[4] for line in info]


def alive(pid):
    try:
        os.kill(pid, 0)
    except OSError as error:
        return error.errno != errno.ESRCH
    # A zombie is gone for this purpose (its parent has not reaped it yet).
    try:
        with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
            return stat.read().rsplit(")", 1)[1].split()[0] != "Z"
    except OSError:
        return False


def wait_for(check, timeout, step=0.1):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        value = check()
        if value:
            return value
        time.sleep(step)
    return check()


class BadCrateFileTest(unittest.TestCase):
    def run_up(self, crate):
        with tempfile.TemporaryDirectory() as scratch:
            path = Path(scratch) / "crate.json"
            path.write_text(json.dumps(crate), encoding="utf-8")
            done = subprocess.run([CRATE, "up", str(path), "--dir", str(Path(scratch) / "crate")],
                                  capture_output=True, text=True, timeout=30, check=False)
            self.assertFalse((Path(scratch) / "crate").exists(), "a bad file must not start anything")
            return done.returncode, done.stderr.replace(str(path), "CRATE")

    def test_unknown_family(self):
        self.assertEqual(self.run_up({"master": 21, "boards": [{"slot": 21, "family": "fc"},
                                                               {"slot": 5, "family": "xc"}]}),
                         (2, 'xpon-crate: crate file CRATE: boards[1].family: unknown family "xc" (lt, lc or fc)\n'))

    def test_duplicate_slot(self):
        self.assertEqual(self.run_up({"master": 21, "boards": [{"slot": 21, "family": "fc"}, {"slot": 5, "family": "lc"},
                                                               {"slot": 5, "family": "lt"}]}),
                         (2, "xpon-crate: crate file CRATE: boards[2].slot: slot 5 is already taken by boards[1]\n"))

    def test_slot_out_of_range(self):
        self.assertEqual(self.run_up({"master": 21, "boards": [{"slot": 21, "family": "fc"},
                                                               {"slot": 17, "family": "lt"}]}),
                         (2, "xpon-crate: crate file CRATE: boards[1].slot: slot 17 is out of range for an LT board "
                             "(1 to 16)\n"))

    def test_master_not_an_fc_slot(self):
        self.assertEqual(self.run_up({"master": 5, "boards": [{"slot": 21, "family": "fc"}, {"slot": 22, "family": "fc"},
                                                              {"slot": 5, "family": "lc"}]}),
                         (2, "xpon-crate: crate file CRATE: master: 5 is not the slot of an FC board of this file "
                             "(FC slots: 21, 22)\n"))

    def test_missing_scenario(self):
        code, text = self.run_up({"master": 21, "boards": [{"slot": 21, "family": "fc", "scenario": "no-such.json"}]})
        self.assertEqual(code, 2)
        self.assertRegex(text, r"^xpon-crate: crate file CRATE: boards\[0\]\.scenario: no such file: /.*/no-such\.json\n$")

    def test_no_running_crate(self):
        with tempfile.TemporaryDirectory() as scratch:
            done = subprocess.run([CRATE, "status", "--dir", scratch], capture_output=True, text=True, timeout=30,
                                  check=False)
        self.assertEqual((done.returncode, done.stderr),
                         (1, f"xpon-crate: no running crate in {scratch} (no state.json; start one with "
                             "xpon-crate up)\n"))


class SmallCrateTest(unittest.TestCase):
    """xpon-crate up examples/crate-small.json, driven through its subcommands, then down."""

    def setUp(self):
        reason = fuse_unavailable_reason()
        if reason:
            if os.environ.get("CI") == "true":
                self.fail(f"CI=true, so this test must run, but: {reason}")
            self.skipTest(reason)
        self.scratch = Path(tempfile.mkdtemp(prefix="xpon-crate-systest."))
        self.bin = self.scratch / "bin"
        self.bin.mkdir()
        for program in PROGRAMS:
            (self.bin / Path(program).name).symlink_to(program)
        self.dir = self.scratch / "crate"
        self.output = open(self.scratch / "up.log", "w+", encoding="utf-8")  # pylint: disable=consider-using-with
        self.up = subprocess.Popen([CRATE, "up", str(Path(EXAMPLES) / "crate-small.json"), "--dir", str(self.dir),  # pylint: disable=consider-using-with
                                    "--bin-dir", str(self.bin), "--interval", "0", "--ready-timeout", "30"],
                                   stdout=self.output, stderr=subprocess.STDOUT, start_new_session=True)
        self.seen_pids = set()

    def tearDown(self):
        if self.up.poll() is None:
            self.up.send_signal(signal.SIGTERM)
            try:
                self.up.wait(30)
            except subprocess.TimeoutExpired:
                self.up.kill()
        self.output.close()
        for point in mount_points():
            if point.startswith(str(self.dir)):
                subprocess.run(["fusermount3", "-uz", point], check=False)
        shutil.rmtree(self.scratch, ignore_errors=True)

    def up_log(self):
        self.output.flush()
        return (self.scratch / "up.log").read_text(encoding="utf-8")

    def crate(self, *args, status=0):
        done = subprocess.run([CRATE, *args, "--dir", str(self.dir)], capture_output=True, text=True, timeout=60,
                              check=False)
        self.assertEqual(done.returncode, status, f"xpon-crate {' '.join(args)}:\n{done.stdout}{done.stderr}\n"
                                                  f"up:\n{self.up_log()}")
        return done

    def status(self):
        status = json.loads(self.crate("status", "--json").stdout)
        for board in status["boards"]:
            self.seen_pids.update(board["pids"].values())
        return {board["slot"]: board for board in status["boards"]}, status

    def board_state(self, slot):
        return json.loads((self.dir / f"slot-{slot:02d}/dev/board-state.json").read_text(encoding="utf-8"))

    def test_up_control_and_down(self):
        ready = wait_for(lambda: "all 4 boards READY" in self.up_log() or self.up.poll() is not None, 45)
        self.assertTrue(ready and self.up.poll() is None, self.up_log())

        boards, status = self.status()
        self.assertEqual(sorted(boards), [5, 7, 21, 22])
        for slot, board in boards.items():
            self.assertEqual((board["state"], board["ready_count"], board["status"]),
                             ("ready", 1, "Processing requests..."), slot)
        expected = {"xpon-ipc-bus", "xpon-board-emu", "xpon-election-stub", "system-mgr"}
        self.assertEqual({slot: set(board["pids"]) for slot, board in boards.items()},
                         {21: expected, 22: expected, 5: expected, 7: expected - {"xpon-election-stub"}})
        self.assertEqual(status["totals"]["processes"], 15)
        self.assertEqual({slot: board["master"] for slot, board in boards.items()},
                         {21: True, 22: False, 5: False, 7: False})
        self.assertEqual((self.dir / "master-slot").read_text(encoding="utf-8"), "21\n")
        self.assertEqual((boards[21]["fan"], boards[22]["fan"], boards[5]["fan"]), (102, 102, None))

        # The master file moves; every stub (FC and LC boards) follows it and publishes 14500:14505.
        self.assertEqual(self.crate("master", "22").stdout,
                         f"master slot 21 -> 22 (written to {self.dir / 'master-slot'})\n")
        self.assertEqual((self.dir / "master-slot").read_text(encoding="utf-8"), "22\n")
        for slot in (21, 22, 5):
            log = self.dir / f"slot-{slot:02d}/log/xpon-election-stub.log"
            self.assertTrue(wait_for(lambda log=log: "master slot 21 -> 22, published 14500:14505"
                                     in log.read_text(encoding="utf-8"), 5), slot)
        self.assertEqual(self.crate("master", "5", status=2).stderr,
                         "xpon-crate: 5 is not the slot of an FC board of this crate (FC slots: 21, 22)\n")
        boards, _ = self.status()
        self.assertEqual({slot: board["master"] for slot, board in boards.items()},
                         {21: False, 22: True, 5: False, 7: False})
        # Back to 21: both FC daemons take themselves for slot 21 (deliberately), so both act as master
        # once this change reaches them.
        told = "Deliver mastership change: master slot 21"
        fc_logs = {slot: self.dir / f"slot-{slot:02d}/log/system-mgr.log" for slot in (21, 22)}
        before = {slot: log.read_text(encoding="utf-8").count(told) for slot, log in fc_logs.items()}
        self.crate("master", "21")
        for slot, log in fc_logs.items():
            self.assertTrue(wait_for(lambda slot=slot, log=log: log.read_text(encoding="utf-8").count(told)
                                     > before[slot], 5), slot)

        # A patch reaches the emulator of that board only.
        self.crate("patch", "5", '{"sensors": {"4": {"temperature": 72}}}')
        self.assertEqual(self.board_state(5)["sensors"][4]["temperature"], 72)
        self.assertEqual(self.board_state(7)["sensors"][4]["temperature"], 57)
        refused = self.crate("patch", "5", '{"sensors": 3', status=2)
        self.assertTrue(refused.stderr.startswith("xpon-crate: the patch is not JSON: "), refused.stderr)
        # The LC polls at once after SIGHUP and asks for the maximum rate: the request crosses the
        # crate to both FC boards over TCP, and both raise their fan module.
        self.crate("reload", "5")
        for slot in (21, 22):
            self.assertTrue(wait_for(lambda slot=slot: self.board_state(slot)["fan_module"]["speed_setting"] == 159,
                                     10), f"slot {slot}: fan module not raised\n{self.up_log()}")
            self.assertIn("Handle IPC event [IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE] | Slot ID 5",
                          fc_logs[slot].read_text(encoding="utf-8"))
        boards, _ = self.status()
        self.assertEqual((boards[5]["state"], boards[5]["ready_count"]), ("ready", 2))

        # The LT board stopped: its processes end and its emulator is unmounted.
        lt_pids = boards[7]["pids"]
        self.crate("stop", "7")
        self.assertEqual([name for name, pid in lt_pids.items() if alive(pid)], [])
        self.assertNotIn(str(self.dir / "slot-07/dev"), mount_points())
        boards, status = self.status()
        self.assertEqual((boards[7]["state"], boards[7]["pids"], status["totals"]["processes"]), ("stopped", {}, 12))
        self.assertEqual(self.crate("stop", "7", status=1).stderr, "xpon-crate: slot 7 (LT) is already stopped\n")
        # ... and started again, to READY.
        started = self.crate("start", "7").stdout
        self.assertRegex(started, r"^slot 7 \(LT\): started, READY in [0-9.]+ s\n$")
        boards, status = self.status()
        self.assertEqual((boards[7]["state"], boards[7]["ready_count"]), ("ready", 1))
        self.assertEqual(set(boards[7]["pids"]), {"xpon-ipc-bus", "xpon-board-emu", "system-mgr"})
        self.assertTrue(set(boards[7]["pids"].values()).isdisjoint(lt_pids.values()))
        self.assertTrue(all(alive(pid) for pid in boards[7]["pids"].values()))
        self.assertIn(str(self.dir / "slot-07/dev"), mount_points())
        self.assertEqual(status["totals"]["processes"], 15)

        # down: everything ends, nothing stays mounted, the directory is gone.
        self.assertEqual(self.crate("down").stdout, "crate stopped\n")
        self.assertEqual(self.up.wait(30), 0, self.up_log())
        self.assertEqual(sorted(pid for pid in self.seen_pids if alive(pid)), [])
        self.assertEqual([point for point in mount_points() if point.startswith(str(self.scratch))], [])
        self.assertFalse(self.dir.exists())
        self.assertEqual(self.crate("status", status=1).stderr,
                         f"xpon-crate: no running crate in {self.dir} (no state.json; start one with xpon-crate up)\n")


    def test_down_after_up_killed(self):
        ready = wait_for(lambda: "all 4 boards READY" in self.up_log() or self.up.poll() is not None, 45)
        self.assertTrue(ready and self.up.poll() is None, self.up_log())
        self.status()
        self.up.kill()
        self.up.wait()
        # The boards outlive a killed up (detached by setsid); down finds them through the state file.
        self.assertTrue(all(alive(pid) for pid in self.seen_pids))
        self.assertEqual(self.crate("status", status=1).stderr,
                         f"xpon-crate: no running crate in {self.dir} (its xpon-crate up, pid {self.up.pid}, has "
                         "ended; xpon-crate down stops what it left running)\n")
        stopped = self.crate("down").stdout
        self.assertTrue(stopped.startswith(f"xpon-crate up (pid {self.up.pid}) had ended; stopped what it left "
                                           "running: slot 21 xpon-ipc-bus ("), stopped)
        self.assertEqual(stopped.count("("), 1 + 15, stopped)
        self.assertTrue(wait_for(lambda: not any(alive(pid) for pid in self.seen_pids), 5))
        self.assertEqual([point for point in mount_points() if point.startswith(str(self.scratch))], [])


def main():
    global CRATE, EXAMPLES, PROGRAMS  # pylint: disable=global-statement
    if len(sys.argv) < 5:
        print(__doc__, file=sys.stderr)
        return 2
    test_class, CRATE, EXAMPLES, PROGRAMS = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4:]
    result = unittest.main(module=sys.modules[__name__], argv=[sys.argv[0], "-v", test_class], exit=False).result
    if not result.wasSuccessful():
        return 1
    if result.skipped and len(result.skipped) == result.testsRun:
        return SKIPPED
    return 0


if __name__ == "__main__":
    sys.exit(main())
