"""Runs what documents show: docs_test.py DOCUMENT...

In every ```console block, lines that start with "$ " are commands, which must succeed, and what follows is their output,
but for the seconds that something took. Every document has an empty directory of its own.
Where no image is believed, notes say so, and what a document shows of that is not printed.
"""
import os
import re
import subprocess
import sys
import tempfile

from file_systems import images_are_believed


def without_times(output):
    return re.sub(r"\d+\.\d\d s$", "... s", output, flags=re.MULTILINE)


def run(document):
    with open(document, encoding="utf-8") as file:
        blocks = re.findall(r"^```console\n(.*?)^```$", file.read(), re.MULTILINE | re.DOTALL)
    if not images_are_believed() and any("known hashes are checked" in text for text in blocks):
        print(f"skipped: {os.path.basename(document)}: what its commands print: no image is believed here")
        return True
    commands = failures = 0
    with tempfile.TemporaryDirectory(dir=os.getcwd()) as directory:
        for text in blocks:
            for command, expected in re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", text, re.MULTILINE):
                done = subprocess.run(["bash", "-c", command], cwd=directory, text=True, check=False,
                                      stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
                commands += 1
                if not images_are_believed():
                    done.stdout = re.sub(r"^kelvane-hash: note: .*\n", "", done.stdout, flags=re.MULTILINE)
                if done.returncode != 0 or without_times(done.stdout) != without_times(expected):
                    failures += 1
                    print(f"{document}: $ {command}\n{done.stdout}exit code {done.returncode}, instead of\n{expected}")
    print(f"{document}: {commands} commands, {failures} failures")
    return commands > 0 and failures == 0


sys.exit(0 if all([run(document) for document in sys.argv[1:]]) and len(sys.argv) > 1 else 1)
