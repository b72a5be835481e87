#!/usr/bin/python3
"""Checks every line of JSON Lines files against doc/json-lines.schema.json with Debian's
python3-jsonschema. Exit 0 when all lines are valid; otherwise prints each invalid line's number
and what is wrong with it, and exits 1. With --talvex-record, every object must also name its
process (talvex-record gives every message a pid)."""
import json
import os
import sys

import jsonschema

def main(argv):
    every_pid = "--talvex-record" in argv
    files = [a for a in argv[1:] if a != "--talvex-record"]
    here = os.path.dirname(os.path.abspath(__file__))
    with open(os.path.join(here, "..", "doc", "json-lines.schema.json")) as f:
        schema = json.load(f)
    validator = jsonschema.Draft202012Validator(schema)
    bad = 0
    for path in files:
        with open(path, encoding="utf-8") as f:
            for number, line in enumerate(f, 1):
                try:
                    value = json.loads(line)
                except ValueError as e:
                    print(f"{path}:{number}: not JSON: {e}")
                    bad += 1
                    continue
                for error in validator.iter_errors(value):
                    print(f"{path}:{number}: {error.message} at {list(error.absolute_path)}")
                    bad += 1
                if every_pid and isinstance(value, dict) and value.get("kind") != "malformed" and "pid" not in value:
                    print(f"{path}:{number}: no pid")
                    bad += 1
    return 1 if bad else 0

if __name__ == "__main__":
    sys.exit(main(sys.argv))
