"""Replay a repository's history through ``ostrel-wiki`` and check its promises.

A clone of the repository is moved commit by commit along its first-parent
history. At each commit the tool plans (and replans when its drift warning
asks), every page to write that has no text yet gets one, naming a marker,
and then:

* every marker saved so far is in the text of a planned page or in the archive;
* no page text lies outside the plan of record;
* the audit log holds each run once and no journal work is left pending;
* every command exits 0 and prints no traceback.

    python scripts/replay.py REPOSITORY [--steps N]

Prints one line per commit and the totals; exits 1 when a check failed.
"""

from __future__ import annotations

import argparse
import json
import os
import sqlite3
import subprocess
import sys
import tempfile
from pathlib import Path
from typing import Any

ENV = os.environ | {"GIT_CONFIG_GLOBAL": os.devnull, "GIT_CONFIG_NOSYSTEM": "1"}


def git(repo: Path, *args: str) -> str:
    done = subprocess.run(["git", *args], cwd=repo, env=ENV, check=True, capture_output=True)
    return done.stdout.decode()


class Tool:
    def __init__(self, repo: Path, state: Path) -> None:
        self.base = [
            sys.executable,
            "-P",
            "-m",
            "malde_ostrel.workers.wiki",
            "--repo",
            str(repo),
            "--store",
            str(state / "store.sqlite3"),
            "--wiki-dir",
            str(state / "wiki"),
        ]
        self.store, self.pages = state / "store.sqlite3", state / "wiki" / "pages"
        self.failures: list[str] = []

    def run(self, *args: str, body: str | None = None) -> tuple[Any, str]:
        done = subprocess.run([*self.base, *args], input=body, env=ENV, capture_output=True, text=True)
        if done.returncode != 0 or "Traceback" in done.stderr:
            self.failures.append(f"{' '.join(args)}: exit {done.returncode}: {done.stderr.strip()}")
        return (json.loads(done.stdout) if done.stdout.strip() else None), done.stderr


def check(tool: Tool, saved: dict[str, str], planned: set[str]) -> list[str]:
    problems: list[str] = []
    with sqlite3.connect(tool.store) as db:
        rows = {r[0] for r in db.execute("SELECT page_id FROM wiki_pages")}
        archived = [r[0] for r in db.execute("SELECT body FROM archive WHERE carried_to IS NULL")]
        pending = db.execute("SELECT count(*) FROM journal").fetchone()[0]
    texts = {p.stem: p.read_text() for p in tool.pages.glob("*.md")}
    for marker in saved:
        if not any(marker in t for p, t in texts.items() if p in planned | rows) and not any(
            marker in b for b in archived
        ):
            problems.append(f"lost {marker}")
    problems += [f"stranded text {p}" for p in texts if p not in planned | rows]
    problems += [f"{pending} journal entries pending"] if pending else []
    log = tool.pages.parent / "plan-log.jsonl"
    runs = [json.loads(line)["run"] for line in log.read_text().splitlines()] if log.exists() else []
    problems += ["a run logged twice"] if len(runs) != len(set(runs)) else []
    return problems


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("repository", type=Path)
    parser.add_argument("--steps", type=int, default=0, help="at most this many commits (0: all)")
    args = parser.parse_args()
    commits = git(args.repository, "rev-list", "--first-parent", "--reverse", "HEAD").split()
    if args.steps:
        commits = commits[-args.steps :]
    totals = dict(commits=0, replans=0, saves=0, problems=0)
    actions: dict[str, int] = {}
    with tempfile.TemporaryDirectory(prefix="replay-") as tmp:
        work, state = Path(tmp) / "work", Path(tmp) / "state"
        subprocess.run(["git", "clone", "-q", "--no-local", str(args.repository), str(work)], env=ENV, check=True)
        git(work, "checkout", "-q", "-B", "replay", commits[0])
        tool, saved = Tool(work, state), dict[str, str]()
        for sha in commits:
            git(work, "reset", "-q", "--hard", sha)
            report, errors = tool.run("--json", "plan")
            if "--replan" in errors:
                totals["replans"] += 1
                report, _ = tool.run("--json", "plan", "--replan")
            for record in report["amendments"] if report else []:
                actions[record["action"]] = actions.get(record["action"], 0) + 1
            status, _ = tool.run("--json", "status")
            planned = {p["page_id"] for p in status["pages"]} if status else set()
            for page in status["pages"] if status else []:
                if page["to_write"] and not (tool.pages / f"{page['page_id']}.md").exists():
                    marker = f"TEXT-{len(saved)}-{sha[:8]}"
                    tool.run("--json", "save", page["page_id"], "-", body=f"# {page['page_id']}\n\n{marker}\n")
                    saved[marker] = page["page_id"]
                    totals["saves"] += 1
            problems = check(tool, saved, planned) + tool.failures
            tool.failures = []
            totals["commits"] += 1
            totals["problems"] += len(problems)
            print(
                f"{sha[:8]} {len(planned):4d} pages {len(saved):4d} texts" + "".join(f"\n  {p}" for p in problems),
                flush=True,
            )
    print(" ".join(f"{k} {v}" for k, v in totals.items()))
    print("records: " + " ".join(f"{k} {v}" for k, v in sorted(actions.items())))
    return 1 if totals["problems"] else 0


if __name__ == "__main__":
    sys.exit(main())
