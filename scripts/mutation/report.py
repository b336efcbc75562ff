"""What came out: a line a change, a table of files, the survivors, the verdict."""
import sys

CAUGHT = "caught"
SURVIVED = "survived"
IDENTICAL = "identical"  # the compiler made the same of it
UNCOMPILABLE = "uncompilable"
COUNTED = (CAUGHT, SURVIVED)
LEAST_SHARE = 95  # per cent that must be caught


def progress(result):
    how = f"{result['suite']}: {result['how']}" if result["suite"] else result["reason"]
    print(f"{result['outcome']:12} {result['file']}:{result['line']} {result['kind']} "
          f"({result['seconds']:.1f} s) {how}", flush=True)


def diff(result):
    return (f"{result['file']}:{result['line']} {result['function']}\n"
            f"- {result['old']}\n+ {result['new']}\n{result['reason'] or 'NOT EXPLAINED'}\n")


def table(results):
    rows = ["file                          made  caught  survived  explained"]
    for name in sorted({r["file"] for r in results}):
        of_file = [r for r in results if r["file"] == name and r["outcome"] in COUNTED]
        survived = [r for r in of_file if r["outcome"] == SURVIVED]
        explained = sum(1 for r in survived if r["reason"])
        rows.append(f"{name:28} {len(of_file):5} {len(of_file) - len(survived):7} "
                    f"{len(survived):9} {explained:10}")
    return "\n".join(rows)


def summary(results, path):
    """Prints and writes the report; the exit status of the program."""
    counted = [r for r in results if r["outcome"] in COUNTED]
    survivors = [r for r in counted if r["outcome"] == SURVIVED]
    unexplained = [r for r in survivors if not r["reason"]]
    caught = len(counted) - len(survivors)
    share = 100 * caught / len(counted) if counted else 0.0
    seconds = sum(r["seconds"] for r in results) / max(1, len(counted))
    verdict = (f"{len(counted)} changes, {caught} caught ({share:.1f} %), {len(survivors)} "
               f"survived, {len(unexplained)} of them unexplained; {seconds:.1f} s a change")
    text = "\n".join([table(results), "", *map(diff, survivors), verdict])
    path.write_text(text + "\n")
    print(text)
    if unexplained or share < LEAST_SHARE:
        print(f"mutate: kill what survived, or explain it in equivalent.txt; at least "
              f"{LEAST_SHARE} % must be caught", file=sys.stderr)
        return 1
    return 0
