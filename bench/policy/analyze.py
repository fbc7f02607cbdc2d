#!/usr/bin/env python3
"""Turns the agent's alerts of a corpus run into per-item findings, and scores policies on them.

  analyze.py attribute RUN_DIR          items.json from RUN_DIR/{ledger.tsv,alerts.json,policy.json}
  analyze.py evaluate POLICY RUN_DIR...  which items POLICY would report, from report-all runs
  analyze.py search RUN_DIR...           the weights and report score that report the most attack
                                         items with no benign item, from report-all runs
  analyze.py flags [--policy P] RUN_DIR...  the flag sets of each item, and per indicator in which
                                         items it was seen (those POLICY would report marked *)

A report-all run (measure.sh --report-all: every weight 1, report score 1) puts every flagged
process into the alerts with its flags ("rule"), so the flag sets seen per item say what any
other weighting would have reported: scoring does not change what the detectors find.
"""
import argparse
import itertools
import json
import os
import sys

FLAGS = [("tmp", 0x001, "PROC_TMP"), ("hidden", 0x002, "PROC_HIDDEN"), ("deleted", 0x004, "PROC_DELETED"),
         ("bip", 0x010, "CONNECT_BIP"), ("cpu", 0x020, "HIGHCPU"), ("strings", 0x040, "STRINGS")]
# What the module takes for a weight missing from "score" (and the weights shipped before).
MODULE_WEIGHTS = {"tmp": 1, "hidden": 1, "deleted": 1, "bip": 3, "cpu": 1, "strings": 3}
# Slack around an item's run when matching an alert's time to it, in seconds.
WINDOW_BEFORE, WINDOW_AFTER = 1, 5


def flag_names(rule):
    names = [key for key, bit, _ in FLAGS if rule & bit]
    return "+".join(names) if names else "-"


def flag_bits(names):
    bits = 0
    for key, bit, _ in FLAGS:
        if key in names.split("+"):
            bits |= bit
    return bits


def read_policy(path):
    with open(path) as f:
        task = json.load(f)["content"]["detaction_full_task"]
    if "score" in task:
        weights = dict(MODULE_WEIGHTS)
        weights.update({k: v for k, v in task["score"].items() if k in weights})
    else:
        weights = {k: 0 for k in MODULE_WEIGHTS}  # the module then scores nothing
    return {"weights": weights, "report_score": task.get("report_score", 3),
            "repeat_interval": task["task_condition"]["repeat_interval"],
            "cpu_usage_warn": task.get("cpu_usage_warn", 9000)}


def score(rule, weights):
    return sum(weights[key] for key, bit, _ in FLAGS if rule & bit)


def read_ledger(path):
    items, pids = [], {}
    with open(path) as f:
        for line in f:
            fields = line.rstrip("\n").split("\t")
            if fields[0] == "item":
                _, name, corpus, start, end, status, what = fields
                items.append({"name": name, "corpus": corpus, "start": int(start), "end": int(end),
                              "status": int(status), "what": what})
            elif fields[0] == "pid":
                pids.setdefault(int(fields[2]), set()).add(fields[1])
    return items, pids


def attribute(run_dir):
    items, pids = read_ledger(os.path.join(run_dir, "ledger.tsv"))
    policy = read_policy(os.path.join(run_dir, "policy.json"))
    by_name = {item["name"]: dict(item, flag_sets=[], alerts=0, pids_reported=[], max_score=None) for item in items}
    outside = {}
    with open(os.path.join(run_dir, "alerts.json")) as f:
        for line in f:
            alert = json.loads(line)
            if alert.get("event_classid") != "procdet_0001":
                continue
            when = alert["occur_time"]
            for proc in alert["process_info"]:
                owner = None
                for pid in (proc["process_pid"], proc.get("parent_process_pid", 0)):
                    for name in sorted(pids.get(pid, ())):
                        item = by_name[name]
                        if item["start"] - WINDOW_BEFORE <= when <= item["end"] + WINDOW_AFTER:
                            owner = item
                    if owner:
                        break
                names = flag_names(proc["rule"])
                if owner is None:
                    key = (proc["process_path"], names)
                    outside[key] = outside.get(key, 0) + 1
                    continue
                owner["alerts"] += 1
                if proc["process_pid"] not in owner["pids_reported"]:
                    owner["pids_reported"].append(proc["process_pid"])
                if names not in owner["flag_sets"]:
                    owner["flag_sets"].append(names)
                owner["max_score"] = max(owner["max_score"] or proc["score"], proc["score"])
    report_all = policy["report_score"] <= 1 and all(w >= 1 for w in policy["weights"].values())
    result = {"policy": policy, "report_all": report_all, "items": list(by_name.values()),
              "outside": [{"path": p, "flags": n, "alerts": c} for (p, n), c in sorted(outside.items())]}
    with open(os.path.join(run_dir, "items.json"), "w") as f:
        json.dump(result, f, indent=1)
    print(f"policy: weights {policy['weights']}, report score {policy['report_score']}, "
          f"interval {policy['repeat_interval']} s, cpu_usage_warn {policy['cpu_usage_warn']}")
    print(f"{'corpus':7} {'item':22} {'alerted':7} {'flags seen':30} status")
    for item in result["items"]:
        print(f"{item['corpus']:7} {item['name']:22} {'yes' if item['alerts'] else 'no':7} "
              f"{' '.join(sorted(item['flag_sets'])) or '-':30} {item['status']}")
    print(f"alerts for processes outside the corpus items: {sum(o['alerts'] for o in result['outside'])}")


def load_runs(run_dirs):
    runs = []
    for run_dir in run_dirs:
        with open(os.path.join(run_dir, "items.json")) as f:
            run = json.load(f)
        if not run["report_all"]:
            sys.exit(f"{run_dir}: not a report-all run; its alerts do not show every flagged process")
        runs.append(run)
    return runs


def outcomes(runs, weights, report_score):
    """item -> list of booleans, one per run that ran it: reported or not."""
    seen = {}
    for run in runs:
        for item in run["items"]:
            caught = any(score(flag_bits(s), weights) >= report_score for s in item["flag_sets"])
            seen.setdefault((item["corpus"], item["name"]), []).append(caught)
    return seen


def item_masks(runs):
    """item -> one tuple of flag masks per run that ran it."""
    masks = {}
    for run in runs:
        for item in run["items"]:
            masks.setdefault((item["corpus"], item["name"]), []).append(
                tuple(flag_bits(s) for s in item["flag_sets"]))
    return masks


def summarize(seen):
    attacks = [v for (corpus, _), v in seen.items() if corpus == "attack"]
    benign = [v for (corpus, _), v in seen.items() if corpus == "benign"]
    return (sum(all(v) for v in attacks), sum(any(v) for v in attacks), len(attacks),
            sum(any(v) for v in benign), len(benign))


def evaluate(policy_path, run_dirs):
    runs = load_runs(run_dirs)
    policy = read_policy(policy_path)
    seen = outcomes(runs, policy["weights"], policy["report_score"])
    print(f"{policy_path}: weights {policy['weights']}, report score {policy['report_score']}")
    for (corpus, name), v in sorted(seen.items()):
        print(f"  {corpus:7} {name:22} reported in {sum(v)}/{len(v)} runs")
    caught_all, caught_any, attacks, benign_alerts, benign = summarize(seen)
    print(f"attack items reported in every run: {caught_all}/{attacks} (in some run: {caught_any}); "
          f"benign items reported: {benign_alerts}/{benign}")


def search(run_dirs, top):
    runs = load_runs(run_dirs)
    keys = [key for key, _, _ in FLAGS]
    masks = item_masks(runs)
    distinct = sorted({m for per_run in masks.values() for run in per_run for m in run})
    best = {}
    for values in itertools.product(range(0, 5), repeat=len(keys)):
        weights = dict(zip(keys, values))
        scores = {m: score(m, weights) for m in distinct}
        # The highest score each item reached in each of its runs.
        peaks = {item: [max((scores[m] for m in run), default=None) for run in per_run]
                 for item, per_run in masks.items()}
        for report_score in range(1, 9):
            def reported(peak):
                return peak is not None and peak >= report_score
            caught = tuple(sorted(n for (c, n), p in peaks.items() if c == "attack" and all(map(reported, p))))
            noisy = tuple(sorted(n for (c, n), p in peaks.items() if c == "benign" and any(map(reported, p))))
            distance = sum(abs(weights[k] - MODULE_WEIGHTS[k]) for k in keys) + abs(report_score - 3)
            entry = best.get((caught, noisy))
            if entry is None or distance < entry[0]:
                best[(caught, noisy)] = (distance, weights, report_score)
    ranked = sorted(best.items(), key=lambda kv: (len(kv[0][1]), -len(kv[0][0]), kv[1][0]))
    attacks = sum(1 for c, _ in masks if c == "attack")
    for benign_limit in sorted({len(noisy) for caught, noisy in best}):
        rows = [r for r in ranked if len(r[0][1]) == benign_limit][:top]
        print(f"== {benign_limit} benign item(s) reported")
        for (caught, noisy), (distance, weights, report_score) in rows:
            print(f"  attacks caught in every run {len(caught):2}/{attacks}: weights {weights} report {report_score}"
                  f" (distance from the module's defaults {distance})")
            print(f"      caught: {' '.join(caught) or '-'}")
            if noisy:
                print(f"      benign reported: {' '.join(noisy)}")


def flags(run_dirs, policy_path):
    runs = load_runs(run_dirs)
    table = {}
    for run in runs:
        for item in run["items"]:
            entry = table.setdefault((item["corpus"], item["name"]), {})
            for flag_set in item["flag_sets"]:
                entry[flag_set] = entry.get(flag_set, 0) + 1
    reported = set()
    if policy_path:
        policy = read_policy(policy_path)
        seen = outcomes(runs, policy["weights"], policy["report_score"])
        reported = {item for item, v in seen.items() if any(v)}
        print(f"{policy_path}: weights {policy['weights']}, report score {policy['report_score']}; "
              "items it reports are marked *")
    counts = {}
    for run in runs:
        for item in run["items"]:
            key = (item["corpus"], item["name"])
            counts[key] = counts.get(key, 0) + 1
    print(f"{'corpus':7} {'item':22} flag sets seen (in how many of its runs)")
    for key, sets in sorted(table.items()):
        text = " ".join(f"{s} ({n}/{counts[key]})" for s, n in sorted(sets.items())) or "-"
        print(f"{key[0]:7} {key[1]:22} {text}")
    print()
    print("| indicator | attack items showing it | benign items showing it |")
    print("|---|---|---|")
    for flag_key, _, flag_name in FLAGS:
        def having(corpus):
            names = sorted(name + ("*" if (c, name) in reported else "") for (c, name), sets in table.items()
                           if c == corpus and any(flag_key in s.split("+") for s in sets))
            return ", ".join(names) or "-"
        print(f"| {flag_name} | {having('attack')} | {having('benign')} |")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    sub = parser.add_subparsers(dest="command", required=True)
    sub.add_parser("attribute").add_argument("run_dir")
    p = sub.add_parser("evaluate")
    p.add_argument("policy")
    p.add_argument("run_dirs", nargs="+")
    p = sub.add_parser("search")
    p.add_argument("--top", type=int, default=5)
    p.add_argument("run_dirs", nargs="+")
    p = sub.add_parser("flags")
    p.add_argument("--policy")
    p.add_argument("run_dirs", nargs="+")
    args = parser.parse_args()
    if args.command == "attribute":
        attribute(args.run_dir)
    elif args.command == "evaluate":
        evaluate(args.policy, args.run_dirs)
    elif args.command == "search":
        search(args.run_dirs, args.top)
    else:
        flags(args.run_dirs, args.policy)


if __name__ == "__main__":
    main()
