"""scripts/check-includes on made-up trees: what it names, and that it lets a clean one pass."""
import pathlib
import subprocess
import sys
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "check-includes"


def check(tree):
    """(exit status, output) of the script for a tree: file to the files that it includes."""
    with tempfile.TemporaryDirectory() as root:
        for file, included in tree.items():
            path = pathlib.Path(root, file)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text("#pragma once\n" + "".join(f'#include "{name}"\n' for name in included))
        run = subprocess.run([sys.executable, SCRIPT, "--root", root], check=False, text=True,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return run.returncode, run.stdout


ROOM = "plugins/http_client/"


class CheckIncludes(unittest.TestCase):
    maxDiff = None

    def test_lets_a_clean_tree_pass(self):
        self.assertEqual(check({
            "orrery/Thread.cpp": ["orrery/Thread.hpp", "connectivity/qor_plugin.h", "vector"],
            "orrery/Thread.hpp": [],
            "connectivity/qor_plugin.h": [],
            "connectivity/Logger.hpp": ["orrery/Thread.hpp"],
            ROOM + "text/Ascii.hpp": [],
            ROOM + "wire/Head.hpp": [ROOM + "text/Ascii.hpp"],
            ROOM + "exchange/Exchange.cpp": [ROOM + "wire/Head.hpp", "connectivity/Logger.hpp"],
            ROOM + "Plugin.cpp": [ROOM + "exchange/Exchange.hpp"],
            "host/chain/Chain.cpp": ["host/system/Wakeup.hpp", "connectivity/Logger.hpp"],
            "host/main.cpp": ["host/chain/Chain.hpp"],
            "tests/host/chain_test.cpp": ["host/chain/Chain.hpp", ROOM + "text/Ascii.hpp"],
        }), (0, "12 includes keep to the layers\n"))

    def test_names_an_include_of_a_room_further_up(self):
        self.assertEqual(check({
            ROOM + "request/Request.hpp": [ROOM + "text/Ascii.hpp", ROOM + "wire/Head.hpp"],
            ROOM + "wire/Head.hpp": [ROOM + "Plugin.hpp"],
        }), (1, ROOM + "request/Request.hpp:3: request may not include wire "
             "(" + ROOM + "wire/Head.hpp)\n" +
             ROOM + "wire/Head.hpp:2: wire may not include top (" + ROOM + "Plugin.hpp)\n"))

    def test_names_an_include_of_a_room_that_its_table_does_not_know(self):
        self.assertEqual(check({
            ROOM + "worker/Loop.cpp": [ROOM + "extras/Extra.hpp"],
            ROOM + "extras/Extra.cpp": [ROOM + "text/Ascii.hpp"],
        }), (1, ROOM + "extras/Extra.cpp:2: extras may not include text "
             "(" + ROOM + "text/Ascii.hpp)\n" +
             ROOM + "worker/Loop.cpp:2: worker may not include extras "
             "(" + ROOM + "extras/Extra.hpp)\n"))

    def test_names_a_cycle_in_the_host_with_an_include_for_each_arrow(self):
        self.assertEqual(check({
            "host/chain/Chain.cpp": ["host/status/Table.hpp"],
            "host/status/Table.hpp": ["orrery/Mutex.hpp", "host/system/Wakeup.hpp"],
            "host/system/Wakeup.cpp": ["host/chain/Chain.hpp"],
            "host/commands/Run.cpp": ["host/chain/Chain.hpp"],
            "orrery/Mutex.hpp": [],
        }), (1, "a cycle: host/chain -> host/status -> host/system -> host/chain\n"
             "  host/chain/Chain.cpp:2 includes host/status/Table.hpp\n"
             "  host/status/Table.hpp:3 includes host/system/Wakeup.hpp\n"
             "  host/system/Wakeup.cpp:2 includes host/chain/Chain.hpp\n"))

    def test_names_both_of_two_cycles_through_one_folder(self):
        status, output = check({
            "host/chain/Chain.cpp": ["host/status/Table.hpp", "host/log/Log.hpp"],
            "host/status/Table.hpp": ["host/chain/Chain.hpp"],
            "host/log/Log.hpp": ["host/chain/Chain.hpp"],
        })
        self.assertEqual(status, 1)
        self.assertEqual([line for line in output.splitlines() if line.startswith("a cycle")],
                         ["a cycle: host/chain -> host/log -> host/chain",
                          "a cycle: host/chain -> host/status -> host/chain"])

    def test_names_an_include_of_the_host_from_below_it(self):
        for file in (ROOM + "worker/Loop.cpp", "connectivity/Logger.cpp", "orrery/Thread.cpp"):
            top = file.split("/", maxsplit=1)[0]
            with self.subTest(top):
                self.assertEqual(
                    check({file: ["host/log/HostLog.hpp"], "host/log/HostLog.hpp": []}),
                    (1, f"{file}:2: {top} may not include host (host/log/HostLog.hpp)\n"))

    def test_names_an_include_that_is_written_relative_to_its_file(self):
        self.assertEqual(check({
            ROOM + "worker/Loop.cpp": ["../../../host/log/HostLog.hpp"],
            "host/log/HostLog.hpp": [],
        }), (1, ROOM + "worker/Loop.cpp:2: plugins may not include host (host/log/HostLog.hpp)\n"))

    def test_lets_the_runtime_see_the_c_interface_and_nothing_else_of_its_folder(self):
        self.assertEqual(check({
            "orrery/runtime/maps.cpp": ["connectivity/qor_plugin.h", "connectivity/data_t.hpp"],
            "connectivity/data_t.hpp": [],
        }), (1, "orrery/runtime/maps.cpp:3: orrery may not include connectivity "
             "(connectivity/data_t.hpp)\n"))

    def test_names_a_cycle_between_top_level_folders_that_no_table_lists(self):
        self.assertEqual(check({
            "tests/support/Server.cpp": ["examples/Server.hpp"],
            "examples/Server.hpp": ["tests/support/Server.hpp"],
        }), (1, "a cycle: examples -> tests -> examples\n"
             "  examples/Server.hpp:2 includes tests/support/Server.hpp\n"
             "  tests/support/Server.cpp:2 includes examples/Server.hpp\n"))

    def test_takes_a_tree_without_includes_for_a_mistake(self):
        self.assertEqual(check({"host/main.cpp": []}),
                         (1, "no include of a file of the tree was found\n"))


if __name__ == "__main__":
    unittest.main()
