"""validateqbsclient end to end: master options against the node's, the node file, every result code."""

import e2e_util

ARGS = ["validateqbsclient", "master", "node", "srv"]
SAME = object()


def case(name, master, output, status=0, stderr="", node=SAME, command="cat out", args=ARGS, **extra):
    """master, node: the files' text (None: absent); output: what the option command prints."""
    return dict({"name": name, "args": args, "env": {"KESTREL_QOPT_CMD": command}, "stdout": "", "stderr": stderr,
                 "files": dict({"out": output}, **({} if master is None else {"master": master})), "status": status,
                 "expect": {args[2]: output if node is SAME else node}}, **extra)


def differ(field, master, node):
    return "quenby: validateqbsclient masterOption.b%s(%d) and nodeOption.b%s(%d) are different\n" % (
        field, master, field, node)


def no_file(which, name):
    return ("quenby: fopen %s QBS configuration file : No such file or directory\n"
            "quenby: validateQBSClient: could not open %s\n" % (which, name))


EXITS = "cat out; exit 1"
FLAGS = ["QUOTESARELITERAL", "SKIPACL", "SKIPACLUPDATECHECK", "WILDCARDSARELITERAL", "UPDATECTIME"]
OUTPUT = "\tQUOTESARELITERAL:\t YES\nSKIPACL:YES\nServer: host:1500:x\nUPDATECTIME : YES\nno colon\nEMPTY:   \n   \n"
CASES = [
    case("equal flags; lines with a name and a value copied, one blank after the colon",
         "  QUOTESARELITERAL:YES\nSKIPACL: YES\nPress 'Q' to quit\n", OUTPUT,
         node="QUOTESARELITERAL: YES\nSKIPACL: YES\nServer: host:1500:x\nUPDATECTIME : YES\n"),
    case("no option command", "", "", 101, "quenby validateqbsclient query - QBS Client option command not provided in "
         "exec\n", node=None, command=None),
    case("a missing master file, found before the command runs", None, "", 102, no_file("master", "master"),
         node=None, command="touch ran", expect={"node": None, "ran": None}),
    case("the node file named as the master: refused before the command runs", "SKIPACL: YES\n", "", 102,
         "quenby: validateQBSClient: output master is the input master\n", node="SKIPACL: YES\n",
         args=["validateqbsclient", "master", "master", "srv"], command="touch ran", expect={"ran": None}),
    case("a node file in a missing directory", "", "", 102, no_file("node", "nodir/node"), node=None,
         args=["validateqbsclient", "master", "nodir/node", "srv"]),
    case("a command exiting 1; the node file keeps what was copied", "", "SKIPACL: YES\n", 102,
         "quenby: validateqbsclient %s command close returned 256\n" % EXITS, command=EXITS),
    case("the scroll prompt on the node", "", "Press 'Q' to quit, any other key\n", 108, node="",
         stderr="quenby: validateqbsclient SCROLLPROMPT option detected on node and cannot continue\n"),
    case("lower-case yes is not counted; of two differing flags the first compared wins", "SKIPACL: yes\n",
         "UPDATECTIME: YES\nSKIPACL: YES\n", 104, differ("Skipacl", 0, 1)),
    case("TESTFLAGS agrees with the option set to YES", "TESTFLAGS: WILDCARDSARELITERAL\nQUOTESARELITERAL: YES\n",
         "WILDCARDSARELITERAL: YES\nTESTFLAGS: QUOTESARELITERAL\n"),
] + [  # each flag differing alone, set on the master and on the node in turn
    case("%s differs" % f, "  %s:YES\n" % f if i % 2 == 0 else "", "%s: %s\n" % (f, "NO" if i % 2 == 0 else "YES"),
         103 + i, differ(f.capitalize(), int(i % 2 == 0), int(i % 2))) for i, f in enumerate(FLAGS)]


if __name__ == "__main__":
    e2e_util.main(CASES)
