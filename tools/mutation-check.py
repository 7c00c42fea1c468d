#!/usr/bin/env python3
"""Seeds plausible bugs into Tarn, one at a time, and checks the tests catch each.

Every mutation replaces one unique piece of one source file (an order
swapped, an off-by-one, a missing wait, a skipped callback). The script
copies the working tree to a scratch folder, builds it once unchanged (the
suites must pass there), then for each mutation: applies it, rebuilds, runs
every suite except the long `stress` and `crash` labels, records whether a
test failed (caught) or none did (missed), and restores the file.

A mutation whose text no longer matches exactly once stops the script: the
list must follow the code, not silently test nothing.

    tools/mutation-check.py                 # every mutation
    tools/mutation-check.py --only flush    # those whose name contains "flush"
    tools/mutation-check.py --list

Exit status: 0 when every mutation was caught, 1 when one was missed, 2 on
a setup error (no match, build failure, failing baseline).
"""
import argparse
import os
import shutil
import subprocess
import sys
import tempfile

# (name, file, text to find, replacement)
MUTATIONS = [
    ("slot table: eviction starts one byte early",
     "src/manager/SlotTable.cpp",
     "return memoryInUse_ > bound && memoryInUse_ > memoryTarget_;",
     "return memoryInUse_ >= bound && memoryInUse_ > memoryTarget_;"),
    ("slot table: eviction goes one byte below the target",
     "src/manager/SlotTable.cpp",
     "while (memoryInUse_ > memoryTarget_ && !lru_.empty())",
     "while (memoryInUse_ >= memoryTarget_ && !lru_.empty())"),
    ("slot table: generation 0 is used after the wrap",
     "src/manager/SlotTable.cpp",
     "generation >= SlotTable::kMaxGeneration ? 1 : generation + 1",
     "generation >= SlotTable::kMaxGeneration ? 0 : generation + 1"),
    ("manager: cancel of a stale id ends the slot's new request",
     "src/manager/CacheManager.cpp",
     "if (!slot->waiting.empty() && slot->waiting.front().requestId == requestId) {",
     "if (!slot->waiting.empty()) {"),
    ("manager: erase does not tell the waiting receivers",
     "src/manager/CacheManager.cpp",
     "  file.unlock();\n  DeliverCancelled(collected);\n",
     "  file.unlock();\n"),
    ("manager: a released generation is not withdrawn from the queue",
     "src/manager/CacheManager.cpp",
     "WorkManager::remove(id_, released.requestId);",
     "(void)released;"),
    ("delivery: a receiver's exception stops delivery to the others",
     "src/manager/Delivery.cpp",
     "      Pt::Exception::Post(escaped);\n",
     "      Pt::Exception::Post(escaped);\n      return;\n"),
    ("platform: the post handler drops nested causes",
     "src/platform/Exception.cpp",
     "e != nullptr; e = e->nested()",
     "e != nullptr; e = nullptr"),
    ("platform: flush does not wait for the writes before it",
     "src/platform/PtIoDeviceFile.cpp",
     "    while (baseEpoch_ <= target) flushed_.wait(guard.native());\n",
     "    (void)target;\n"),
    ("platform: a request overlapping only the last byte is not ordered",
     "src/platform/RequestSequencer.cpp",
     "for (auto scan = it; scan != segments_.end() && scan->first < end; ++scan) {",
     "for (auto scan = it; scan != segments_.end() && scan->first + 1 < end; ++scan) {"),
    ("store: free space does not merge with the previous range",
     "src/store/FreeSpace.cpp",
     "const bool mergesPrevious = hasPrevious && EndOf(previous->first, previous->second) == offset;",
     "const bool mergesPrevious = false;"),
    ("store: commit does not flush",
     "src/store/FileManager.cpp",
     "  operations_.waitThrough(operations_.lastStarted());\n  device_->flush();\n",
     "  operations_.waitThrough(operations_.lastStarted());\n"),
    ("store: commit does not wait for outstanding writes",
     "src/store/FileManager.cpp",
     "  operations_.waitThrough(operations_.lastStarted());\n  device_->flush();\n",
     "  device_->flush();\n"),
    ("store: a replacement's header does not wait for the old header's delete",
     "src/store/FileManagerEntries.cpp",
     "  if (erasing_.count(primaryKey) != 0) {\n    info.stage = Stage::Parked;",
     "  if (false) {\n    info.stage = Stage::Parked;"),
    ("store: a header is written without waiting for its data to be synced",
     "src/store/GroupSync.cpp",
     "  if (!durable_) {\n    step(0);",
     "  if (true) {\n    step(0);"),
    ("store: a failed data write leaves its entry in the index",
     "src/store/FileManagerEntries.cpp",
     "  if (entry != entries_.end() && entry->second.serial == serial) {\n    dropEntry(entry);\n    return;\n  }",
     "  if (entry != entries_.end() && entry->second.serial == serial) {\n    return;\n  }"),
    ("work: the lowest priority runs first",
     "src/work/WorkManager.cpp",
     "int priority = kPriorities - 1;\n  while (!s.nonEmpty[priority]) --priority;",
     "int priority = 0;\n  while (!s.nonEmpty[priority]) ++priority;"),
    ("core: a configured retry count of 2 is refused",
     "src/core/ConfigRules.cpp",
     "configured >= 0 && configured <= 2 ? configured + 1 : 2",
     "configured >= 0 && configured < 2 ? configured + 1 : 2"),
]

EXCLUDED_LABELS = "stress|crash"


def run(command, cwd, log, timeout=None):
    """Runs `command`, appending its output to `log`; returns the exit status."""
    with open(log, "a") as out:
        out.write("\n$ " + " ".join(command) + "\n")
        out.flush()
        try:
            return subprocess.run(command, cwd=cwd, stdout=out, stderr=subprocess.STDOUT,
                                  timeout=timeout).returncode
        except subprocess.TimeoutExpired:
            out.write("timed out\n")
            return 124


def same_content(a, b):
    if not os.path.isfile(b) or os.path.getsize(a) != os.path.getsize(b):
        return False
    with open(a, "rb") as fa, open(b, "rb") as fb:
        return fa.read() == fb.read()


def copy_tree(source, scratch):
    """Copies the working tree's files. Changed files get a new time stamp (a
    kept scratch build must see them as newer); unchanged ones keep theirs."""
    files = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z"], cwd=source,
                           check=True, capture_output=True).stdout.decode().split("\0")
    for name in filter(None, files):
        if not os.path.isfile(os.path.join(source, name)):
            continue  # deleted in the working tree
        target = os.path.join(scratch, name)
        if same_content(os.path.join(source, name), target):
            continue
        os.makedirs(os.path.dirname(target) or scratch, exist_ok=True)
        shutil.copy(os.path.join(source, name), target)


def apply(scratch, path, find, replace):
    """Applies one mutation; returns the original text, or stops the script."""
    full = os.path.join(scratch, path)
    with open(full) as f:
        original = f.read()
    count = original.count(find)
    if count != 1:
        sys.exit(f"mutation-check: {path}: expected text found {count} times, not once:\n{find}")
    with open(full, "w") as f:
        f.write(original.replace(find, replace))
    return original


def build_and_test(scratch, build, jobs, log):
    """'build failed', 'caught' (a test failed) or 'passed'."""
    if run(["cmake", "--build", build, "-j", str(jobs)], scratch, log) != 0:
        return "build failed"
    status = run(["ctest", "--test-dir", build, "-j", str(jobs), "-LE", EXCLUDED_LABELS,
                  "--timeout", "60", "--output-on-failure"], scratch, log, timeout=900)
    return "passed" if status == 0 else "caught"


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--only", help="run the mutations whose name contains this text")
    parser.add_argument("--list", action="store_true", help="list the mutations and stop")
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    parser.add_argument("--scratch", help="scratch folder (default: a new temporary one)")
    parser.add_argument("--keep", action="store_true", help="keep the scratch folder")
    args = parser.parse_args()
    chosen = [m for m in MUTATIONS if not args.only or args.only in m[0]]
    if args.list:
        for name, path, _, _ in chosen:
            print(f"{name}  ({path})")
        return 0

    source = subprocess.run(["git", "rev-parse", "--show-toplevel"], check=True,
                            capture_output=True, text=True).stdout.strip()
    scratch = args.scratch or tempfile.mkdtemp(prefix="tarn-mutation-")
    build = os.path.join(scratch, "build")
    log = os.path.join(scratch, "mutation-check.log")
    print(f"mutation-check: scratch copy in {scratch}, log in {log}")
    copy_tree(source, scratch)
    try:
        if run(["cmake", "-S", ".", "-B", build, "-G", "Ninja",
                "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DTARN_BUILD_BENCH=OFF"], scratch, log) != 0:
            sys.exit("mutation-check: configure failed; see the log")
        baseline = build_and_test(scratch, build, args.jobs, log)
        if baseline != "passed":
            sys.exit(f"mutation-check: the unchanged tree {baseline}; see the log")
        results = []
        for name, path, find, replace in chosen:
            original = apply(scratch, path, find, replace)
            try:
                outcome = build_and_test(scratch, build, args.jobs, log)
            finally:
                with open(os.path.join(scratch, path), "w") as f:
                    f.write(original)
            results.append((name, outcome))
            print(f"{outcome.upper():>12}  {name}", flush=True)
        missed = [name for name, outcome in results if outcome != "caught"]
        print(f"mutation-check: {len(results) - len(missed)} of {len(results)} caught")
        return 1 if missed else 0
    finally:
        if not args.keep and not args.scratch:
            shutil.rmtree(scratch, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
