"""validateqbsclient end to end: the master's option file against what this
node's option command prints, the node option file it writes, and every
result code.

Run: python3 test_validateclient.py /path/to/quenby
"""

import subprocess
import unittest

import e2e_util
from e2e_util import run_case

ARGS = ["validateqbsclient", "master", "node", "srv"]
SAME_AS_OUTPUT = object()
NO_SUCH_FILE = ": No such file or directory\n"


def printer(text):
    """A shell command that prints text as it stands."""
    esc = {"\n": "\\n", "\t": "\\t", "'": "\\047", "\\": "\\\\", "%": "%%"}
    return "printf '%s'" % "".join(esc.get(ch, ch) for ch in text)


def case(name, master, output, status=0, stderr="", node=SAME_AS_OUTPUT, command=None, args=ARGS, **extra):
    """master: the master file's text (None: no file); output: what the
    option command prints; node: the node file expected (None: absent)."""
    command = command or printer(output)
    c = {"name": name, "args": args, "env": {"KESTREL_QOPT_CMD": command},
         "files": {} if master is None else {"master": master},
         "expect": {args[2]: output if node is SAME_AS_OUTPUT else node},
         "stdout": "", "stderr": stderr, "status": status}
    c.update(extra)
    return c


def differ(field, master, node):
    return ("quenby: validateqbsclient masterOption.%s(%d) and nodeOption.%s(%d) are different\n"
            % (field, master, field, node))


def result_cases():
    failed = "quenby: validateqbsclient %s command close returned 256\n"
    prompt = "quenby: validateqbsclient SCROLLPROMPT option detected on node and cannot continue\n"
    exits = printer("SKIPACL: YES\n") + "; exit 1"
    cases = [
        case("equal flags; lines with a name and a value copied, one blank after the colon",
             "  QUOTESARELITERAL:YES\nSKIPACL: YES\n",
             "\tQUOTESARELITERAL:\t YES\nSKIPACL:YES\nServer: host:1500:x\nUPDATECTIME : YES\n"
             "no colon at all\nEMPTY:   \n   \n",
             node="QUOTESARELITERAL: YES\nSKIPACL: YES\nServer: host:1500:x\nUPDATECTIME : YES\n", chain=True),
        dict(case("no option command", "", "", status=101, node=None,
                  stderr="quenby validateqbsclient query - QBS Client option command not provided in exec\n"),
             env={}),
        case("a missing master file, found before the command runs", None, "", status=102, node=None,
             command="touch ran", expect={"node": None, "ran": None},
             stderr="quenby: fopen master QBS configuration file " + NO_SUCH_FILE
                    + "quenby: validateQBSClient: could not open master\n"),
        case("a node file in a missing directory", "", "", status=102, node=None,
             args=["validateqbsclient", "master", "nodir/node", "srv"],
             stderr="quenby: fopen node QBS configuration file " + NO_SUCH_FILE
                    + "quenby: validateQBSClient: could not open nodir/node\n"),
        case("a command exiting 1; the node file keeps what was copied", "", "SKIPACL: YES\n", status=102,
             command=exits, stderr=failed % exits),
        case("of two differing flags the first compared wins", "", "UPDATECTIME: YES\nSKIPACL: YES\n",
             status=104, stderr=differ("bSkipacl", 0, 1)),
        case("the scroll prompt on the node", "", "Press 'Q' to quit, any other key to go on\n", status=108,
             node="", stderr=prompt),
        case("a differing flag wins over the scroll prompt", "UPDATECTIME: YES\n", "Press 'Q' to quit\n",
             status=107, node="", stderr=differ("bUpdatectime", 1, 0)),
        case("the master's scroll prompt is not looked at", "Press 'Q' to quit\n", ""),
        case("lower-case yes is not counted", "SKIPACL: yes\n", "SKIPACL: YES\n", status=104,
             stderr=differ("bSkipacl", 0, 1)),
        case("TESTFLAGS agrees with the option set to YES", "TESTFLAGS: WILDCARDSARELITERAL\nQUOTESARELITERAL: YES\n",
             "WILDCARDSARELITERAL: YES\nTESTFLAGS: QUOTESARELITERAL\n"),
        case("nothing printed, empty master", "", ""),
    ]
    # Each flag differing alone, in either direction.
    flags = [("QUOTESARELITERAL", "bQuotesareliteral"), ("SKIPACL", "bSkipacl"),
             ("SKIPACLUPDATECHECK", "bSkipaclupdatecheck"), ("WILDCARDSARELITERAL", "bWildcardsareliteral"),
             ("UPDATECTIME", "bUpdatectime")]
    for i, (option, field) in enumerate(flags):
        on_master = i % 2 == 0
        master = "  %s:YES\n" % option if on_master else ""
        cases.append(case("%s differs" % option, master, "%s: %s\n" % (option, "NO" if on_master else "YES"),
                          status=103 + i, stderr=differ(field, int(on_master), int(not on_master))))
    return cases


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
        for c in result_cases():
            run_case(self, c, chain)


if __name__ == "__main__":
    e2e_util.main()
