"""validateqbsclient end to end: the master's options against what this
node's option command prints, the node file written, and every result code.

Run: python3 test_validateclient.py /path/to/quenby
"""

import subprocess
import unittest

import e2e_util
from e2e_util import run_case

ARGS = ["validateqbsclient", "master", "node", "srv"]
SAME = object()
PROMPT = "quenby: validateqbsclient SCROLLPROMPT option detected on node and cannot continue\n"


def printer(text):
    """A shell command that prints text as it stands."""
    esc = {"\n": "\\n", "\t": "\\t", "'": "\\047", "\\": "\\\\", "%": "%%"}
    return "printf '%s'" % "".join(esc.get(ch, ch) for ch in text)


def case(name, master, output, status=0, stderr="", node=SAME, command=None, args=ARGS, **extra):
    """master, node: the files' text (None: absent); output: what the option command prints."""
    c = {"name": name, "args": args, "env": {"KESTREL_QOPT_CMD": command or printer(output)},
         "files": {} if master is None else {"master": master}, "stdout": "", "stderr": stderr, "status": status,
         "expect": {args[2]: output if node is SAME else node}}
    c.update(extra)
    return c


def differ(field, master, node):
    return "quenby: validateqbsclient masterOption.%s(%d) and nodeOption.%s(%d) are different\n" % (
        field, master, field, node)


def no_file(which, name):
    return ("quenby: fopen %s QBS configuration file : No such file or directory\n"
            "quenby: validateQBSClient: could not open %s\n" % (which, name))


EXITS = printer("SKIPACL: YES\n") + "; exit 1"
FLAGS = ["QUOTESARELITERAL", "SKIPACL", "SKIPACLUPDATECHECK", "WILDCARDSARELITERAL", "UPDATECTIME"]
CASES = [
    case("equal flags; lines with a name and a value copied, one blank after the colon",
         "  QUOTESARELITERAL:YES\nSKIPACL: YES\n",
         "\tQUOTESARELITERAL:\t YES\nSKIPACL:YES\nServer: host:1500:x\nUPDATECTIME : YES\nno colon\nEMPTY:   \n   \n",
         node="QUOTESARELITERAL: YES\nSKIPACL: YES\nServer: host:1500:x\nUPDATECTIME : YES\n", chain=True),
    dict(case("no option command", "", "", 101, node=None,
              stderr="quenby validateqbsclient query - QBS Client option command not provided in exec\n"), env={}),
    case("a missing master file, found before the command runs", None, "", 102, no_file("master", "master"),
         node=None, command="touch ran", expect={"node": None, "ran": None}),
    case("a node file in a missing directory", "", "", 102, no_file("node", "nodir/node"), node=None,
         args=["validateqbsclient", "master", "nodir/node", "srv"]),
    case("a command exiting 1; the node file keeps what was copied", "", "SKIPACL: YES\n", 102,
         "quenby: validateqbsclient %s command close returned 256\n" % EXITS, command=EXITS),
    case("of two differing flags the first compared wins", "", "UPDATECTIME: YES\nSKIPACL: YES\n", 104,
         differ("bSkipacl", 0, 1)),
    case("the scroll prompt on the node", "", "Press 'Q' to quit, any other key\n", 108, PROMPT, node=""),
    case("a differing flag wins over the scroll prompt", "UPDATECTIME: YES\n", "Press 'Q' to quit\n", 107,
         differ("bUpdatectime", 1, 0), node=""),
    case("the master's scroll prompt is not looked at", "Press 'Q' to quit\n", ""),
    case("lower-case yes is not counted", "SKIPACL: yes\n", "SKIPACL: YES\n", 104, differ("bSkipacl", 0, 1)),
    case("TESTFLAGS agrees with the option set to YES", "TESTFLAGS: WILDCARDSARELITERAL\nQUOTESARELITERAL: YES\n",
         "WILDCARDSARELITERAL: YES\nTESTFLAGS: QUOTESARELITERAL\n"),
] + [  # each flag differing alone, set on the master and on the node in turn
    case("%s differs" % f, "  %s:YES\n" % f if i % 2 == 0 else "", "%s: %s\n" % (f, "NO" if i % 2 == 0 else "YES"),
         103 + i, differ("b" + f.capitalize(), int(i % 2 == 0), int(i % 2)))
    for i, f in enumerate(FLAGS)]


def chain(test, case, out):
    """The node file one node wrote serves another node as its master."""
    if not case.get("chain"):
        return
    proc = subprocess.run([e2e_util.BINARY, "validateqbsclient", "node", "node2", "srv"], cwd=out.scratch,
                          env=e2e_util.clean_env(case["env"]), capture_output=True, timeout=60)
    with test.subTest(case=case["name"], check="node file as master"):
        test.assertEqual(0, proc.returncode, proc.stderr)
        test.assertEqual(out.read("node"), out.read("node2"))


class ValidateClientTest(unittest.TestCase):
    def test_results(self):
        for c in CASES:
            run_case(self, c, chain)


if __name__ == "__main__":
    e2e_util.main()
