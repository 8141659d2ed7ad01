#!/usr/bin/env python3
"""Checks a GitHub Actions workflow the way the runner would read it, and against Veltra itself.

Usage: check_workflow.py WORKFLOW.yml VELTRA

- The YAML reads, and its shape is the workflow syntax's: triggers, jobs with runs-on and steps,
  each step either uses an action pinned to a ref or runs a script, only known keys.
- Every ${{ }} expression is closed and starts from a context the runner provides.
- Secrets never appear inside a script: they reach it through env.
- Every `veltra ...` command a script runs exists, and each --option it passes is one that
  command's --help lists.
"""
import re
import shlex
import subprocess
import sys

import yaml

CONTEXTS = {"github", "env", "secrets", "vars", "inputs", "runner", "steps", "matrix", "needs",
            "job", "strategy", "always", "success", "failure", "cancelled"}
JOB_KEYS = {"name", "runs-on", "steps", "env", "timeout-minutes", "if", "needs", "permissions",
            "environment", "concurrency", "outputs", "strategy", "defaults", "continue-on-error"}
STEP_KEYS = {"name", "id", "if", "uses", "run", "with", "env", "shell", "working-directory",
             "continue-on-error", "timeout-minutes"}
TOP_KEYS = {"name", "on", "permissions", "env", "jobs", "concurrency", "defaults", "run-name"}

problems = []


def problem(where, text):
    problems.append(f"{where}: {text}")


def expressions(value, where):
    if isinstance(value, dict):
        for key, item in value.items():
            expressions(item, f"{where}.{key}")
    elif isinstance(value, list):
        for index, item in enumerate(value):
            expressions(item, f"{where}[{index}]")
    elif isinstance(value, str):
        if value.count("${{") != value.count("}}"):
            problem(where, "an expression is not closed")
        for inner in re.findall(r"\$\{\{(.*?)\}\}", value, re.S):
            root = re.match(r"\s*([A-Za-z_][A-Za-z0-9_-]*)", inner)
            if not root or root.group(1) not in CONTEXTS:
                problem(where, f"unknown context in ${{{{{inner}}}}}")


def veltra_commands(script):
    """The argument lists of the `veltra` commands a script runs."""
    joined = script.replace("\\\n", " ")
    for line in joined.splitlines():
        for part in re.split(r"\||&&|;", line):
            try:
                words = shlex.split(part, comments=True)
            except ValueError:
                continue
            if words and words[0] == "veltra":
                yield words[1:]


def check_veltra(veltra, arguments, where):
    # The sub-command path: the words before the first option or operand that is not a command.
    path = []
    for word in arguments:
        if word.startswith("-"):
            break
        probe = subprocess.run([veltra, *path, word, "--help"], capture_output=True, text=True)
        usage = "Usage: " + " ".join(["veltra", *path, word]) + " "
        if probe.returncode != 0 or usage not in probe.stdout:
            break
        path.append(word)
    if not path:
        problem(where, f"veltra {' '.join(arguments)}: no such command")
        return
    help_text = subprocess.run([veltra, *path, "--help"], capture_output=True, text=True).stdout
    for word in arguments:
        if word.startswith("--"):
            option = word.split("=", 1)[0]
            if not re.search(r"(^|[\s,])" + re.escape(option) + r"(\s|=|,|$)", help_text, re.M):
                problem(where, f"veltra {' '.join(path)} has no option {option}")


def main():
    workflow_path, veltra = sys.argv[1], sys.argv[2]
    with open(workflow_path, encoding="utf-8") as handle:
        workflow = yaml.safe_load(handle)
    if not isinstance(workflow, dict):
        problem(workflow_path, "not a mapping")
        return
    # YAML 1.1 reads the key `on` as true.
    if True in workflow:
        workflow["on"] = workflow.pop(True)
    for key in workflow:
        if key not in TOP_KEYS:
            problem(workflow_path, f"unknown key {key}")
    if not workflow.get("on"):
        problem(workflow_path, "no trigger (on)")
    jobs = workflow.get("jobs")
    if not isinstance(jobs, dict) or not jobs:
        problem(workflow_path, "no jobs")
        return
    expressions(workflow, "workflow")
    for name, job in jobs.items():
        where = f"jobs.{name}"
        for key in job:
            if key not in JOB_KEYS:
                problem(where, f"unknown key {key}")
        if not isinstance(job.get("runs-on"), str):
            problem(where, "no runs-on")
        steps = job.get("steps")
        if not isinstance(steps, list) or not steps:
            problem(where, "no steps")
            continue
        for index, step in enumerate(steps):
            at = f"{where}.steps[{index}]"
            for key in step:
                if key not in STEP_KEYS:
                    problem(at, f"unknown key {key}")
            if ("uses" in step) == ("run" in step):
                problem(at, "needs exactly one of uses and run")
            if "uses" in step and not re.fullmatch(r"[\w.-]+/[\w./-]+@[\w.-]+", step["uses"]):
                problem(at, f"action {step['uses']} is not pinned to a ref")
            if "with" in step and "uses" not in step:
                problem(at, "with needs uses")
            script = step.get("run")
            if script is not None:
                if "secrets." in script:
                    problem(at, "a secret is written into the script; pass it through env")
                for arguments in veltra_commands(script):
                    check_veltra(veltra, arguments, at)


main()
for line in problems:
    print(line)
sys.exit(1 if problems else 0)
