"""Glob patterns over repository paths."""

from __future__ import annotations

import re


def glob_regex(pattern: str) -> re.Pattern[str]:
    """A glob over whole repository paths: "*" and "?" stay within one path
    step, "**" spans any number of steps, "[...]" is a character class; a
    pattern ending in "/" covers everything below that directory."""
    text = pattern.strip().lstrip("/")
    if text.endswith("/"):
        text += "**"
    steps = text.split("/")
    out: list[str] = []
    for index, step in enumerate(steps):
        last = index == len(steps) - 1
        if step == "**":
            out.append(".*" if last else "(?:[^/]+/)*")
            continue
        out.append(glob_step(step))
        if not last:
            out.append("/")
    return re.compile("".join(out))


def glob_step(step: str) -> str:
    out: list[str] = []
    i = 0
    while i < len(step):
        char = step[i]
        if char == "*":
            out.append("[^/]*")
        elif char == "?":
            out.append("[^/]")
        elif char == "[" and (close := step.find("]", i + 2)) != -1:
            inner = step[i + 1 : close]
            negate = inner.startswith("!")
            body = re.escape(inner[1:] if negate else inner).replace("\\-", "-")
            out.append(f"[{'^' if negate else ''}{body}]")
            i = close
        else:
            out.append(re.escape(char))
        i += 1
    return "".join(out)
