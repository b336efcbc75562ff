"""What came out: a line a change, a table of files, the survivors, the verdict."""
import sys

CAUGHT = "caught"
SURVIVED = "survived"
IDENTICAL = "identical"  # the compiler made the same of it
UNCOMPILABLE = "uncompilable"
COUNTED = (CAUGHT, SURVIVED)
LEAST_SHARE = 95  # per cent that must be caught,
ENOUGH = 100  # of so many changes at least: fewer say nothing about a share
NO_END = "no end"  # how a change is caught that makes a suite run for ever


def progress(result):
    how = f"{result['suite']}: {result['how']}" if result["suite"] else result["reason"]
    print(f"{result['outcome']:12} {result['file']}:{result['line']} {result['kind']} "
          f"({result['seconds']:.1f} s) {how}", flush=True)


def diff(result):
    return (f"{result['file']}:{result['line']} {result['function']}\n"
            f"- {result['old']}\n+ {result['new']}\n{result['reason'] or 'NOT EXPLAINED'}\n")


def table(counted, field):
    """The changes by one of their fields."""
    rows = [f"{field:28}  made  caught  survived  explained"]
    for value in sorted({r[field] for r in counted}):
        made = [r for r in counted if r[field] == value]
        survived = [r for r in made if r["outcome"] == SURVIVED]
        explained = sum(1 for r in survived if r["reason"])
        rows.append(f"{value:28} {len(made):5} {len(made) - len(survived):7} "
                    f"{len(survived):9} {explained:10}")
    return "\n".join(rows) + "\n"


def summary(results, path):
    """Prints and writes the report; the exit status of the program."""
    counted = [r for r in results if r["outcome"] in COUNTED]
    survivors = [r for r in counted if r["outcome"] == SURVIVED]
    unexplained = [r for r in survivors if not r["reason"]]
    caught = len(counted) - len(survivors)
    share = 100 * caught / max(1, len(counted))
    endless = sum(1 for r in counted if r["how"] == NO_END)
    seconds = sum(r["seconds"] for r in results) / max(1, len(counted))
    verdict = (f"{len(counted)} changes, {caught} caught ({share:.1f} %, {endless} of them because "
               f"a suite did not end), {len(survivors)} survived, {len(unexplained)} of them "
               f"unexplained; {seconds:.1f} s a change")
    text = "\n".join([table(counted, "file"), table(counted, "kind"), *map(diff, survivors),
                      verdict])
    path.write_text(text + "\n")
    print(text)
    if unexplained or (len(counted) >= ENOUGH and share < LEAST_SHARE):
        print("mutate: write tests for what survived, or explain in equivalent.txt why it makes no "
              f"difference; of {ENOUGH} changes or more {LEAST_SHARE} % must be caught",
              file=sys.stderr)
        return 1
    return 0
