#!/usr/bin/env python3
"""A submitter with asyncio: submits a workflow, follows it to its end, exits by how it ended.

    PYTHONPATH=build/default/python python3 examples/submitter.py HOST PORT USER PASSWORD [FILE]

FILE is a work description in JSON (docs/descriptions.md), examples/build.json for instance;
without it a small workflow of three tasks is submitted. Each change of the workflow is one line
on stdout. Exit codes, as zelctl submit's (docs/zelctl.md): 0 it finished, 1 usage, 2 the
cluster could not be reached, refused the login or the link was lost, 3 the master refused the
request or did not answer, 4 the description has errors (each printed, nothing sent), 5 the
master refused the workflow, 6 it failed, 7 it was cancelled (killed), 9 it was removed before it
ended.
"""

import asyncio
import json
import sys

import zelcapi

SMALL = {
    "name": "hello",
    "tasks": [
        {"name": "fetch", "command": "fetch inputs/"},
        {"name": "work", "command": "work inputs/ outputs/", "after": "fetch"},
        {"name": "report", "command": "report outputs/", "after": "work"},
    ],
}

BY_END = {"finished": 0, "failed": 6, "killed": 7}


async def submit_and_follow(host: str, port: str, user: str, password: str,
                            description: dict) -> int:
    async with zelcapi.AsyncStateConnection(history_keep_time=600) as c:
        code = await c.connect(host, port)
        if code != zelcapi.ResultCode.CONNECTION_OK:
            print(f"submitter: {host}:{port}: {code.text}", file=sys.stderr)
            return 2
        await c.login(user, password)
        await c.snapshot()
        try:
            workflow = (await c.submit(description)).ids[0]
        except zelcapi.DescriptionError as e:
            for path, message, _ in e.errors:
                print(f"submitter: {path}: {message}", file=sys.stderr)
            return 4
        print(f"submitted {workflow}")
        last = None
        async for record in c.follow(workflow):
            print(record.describe())
            last = record
        return BY_END.get(last.state, 3)


def main(argv: list) -> int:
    if len(argv) not in (5, 6):
        print(__doc__.strip().splitlines()[2].strip(), file=sys.stderr)
        return 1
    description = SMALL
    if len(argv) == 6:
        try:
            with open(argv[5]) as f:
                description = json.load(f)
        except (OSError, ValueError) as e:
            print(f"submitter: {argv[5]}: {e}", file=sys.stderr)
            return 1
    try:
        return asyncio.run(submit_and_follow(*argv[1:5], description))
    except (zelcapi.LoginError, zelcapi.LinkLost) as e:
        print(f"submitter: {e}", file=sys.stderr)
        return 2
    except zelcapi.WorkRemoved as e:
        print(f"submitter: {e}", file=sys.stderr)
        return 9
    except zelcapi.Refused as e:
        print(f"submitter: {e}", file=sys.stderr)
        return 5
    except zelcapi.Error as e:
        print(f"submitter: {e}", file=sys.stderr)
        return 3


if __name__ == "__main__":
    sys.exit(main(sys.argv))
