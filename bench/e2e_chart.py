#!/usr/bin/python3
"""Draws bench/e2e's figures as one PNG: wall time, sender CPU per GB and peak RSS per contender
and workload size. Bars are medians over the rounds, whiskers the min and max.

    /usr/bin/python3 bench/e2e_chart.py bench/e2e.json bench/e2e.png

Runs with the system's Python, where Debian's python3-matplotlib is.
"""

import json
import statistics
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402  (after the back-end is chosen)
from matplotlib.lines import Line2D  # noqa: E402
from matplotlib.ticker import FuncFormatter  # noqa: E402

COLOURS = {"ceiling": "#9e9e9e", "drover-before": "#f4a261", "drover": "#2a6f97",
           "rsyslog": "#8ab17d", "syslog-ng": "#b56576"}


def figures(run):
    gb = run["size"] / 1e9
    return {
        "wall": run["wall"],
        "cpu": run["cpu"] / gb if run["cpu"] is not None else None,
        "rss": run["rss"] / 1024 if run["rss"] else None,
    }


def main(json_path, png_path):
    with open(json_path) as text:
        raw = json.load(text)
    meta, runs = raw["meta"], raw["runs"]
    names = [n for n in meta["contenders"] if any(r["name"] == n for r in runs)]
    sizes = meta["sizes"]
    panels = [("wall", "wall time, s (log)", True),
              ("cpu", "sender CPU, s per GB (log)", True),
              ("rss", "sender peak RSS, MiB", False)]
    fig, axes = plt.subplots(1, 3, figsize=(15, 5.2))
    width = 0.8 / len(names)
    for axis, (key, title, logarithmic) in zip(axes, panels):
        for i, name in enumerate(names):
            heights, low, high, where = [], [], [], []
            for j, lines in enumerate(sizes):
                values = [figures(r)[key] for r in runs
                          if r["name"] == name and r["lines"] == lines]
                values = [v for v in values if v is not None]
                if not values:
                    continue
                mid = statistics.median(values)
                heights.append(mid)
                low.append(mid - min(values))
                high.append(max(values) - mid)
                where.append(j - 0.4 + width * (i + 0.5))
            axis.bar(where, heights, width, yerr=[low, high], capsize=2,
                     color=COLOURS.get(name, None), label=meta["labels"].get(name, name))
            for x, h in zip(where, heights):
                axis.annotate(f"{h:.3g}", (x, h), ha="center", va="bottom", fontsize=7,
                              xytext=(0, 2), textcoords="offset points")
        goal = Line2D([], [], color="black", linestyle="dashed", linewidth=1,
                      label="drover's goal")
        if key == "cpu":
            for j, lines in enumerate(sizes):
                axis.hlines(2.0 if lines < 5000000 else 1.8, j - 0.45, j + 0.45,
                            colors="black", linestyles="dashed", linewidth=1)
        if key == "rss":
            axis.axhline(20, color="black", linestyle="dashed", linewidth=1)
        top = max((bar.get_height() for bar in axis.patches), default=1)
        if logarithmic:
            axis.set_yscale("log")
            axis.set_ylim(top=top * 1.8)  # room for the numbers over the bars
            # Plain numbers: the readers compare seconds, not powers of ten.
            axis.yaxis.set_major_formatter(FuncFormatter(lambda v, _: f"{v:g}"))
            axis.yaxis.set_minor_formatter(FuncFormatter(
                lambda v, _: f"{v:g}" if f"{v:.0e}"[0] in "25" else ""))
        axis.set_xticks(range(len(sizes)))
        axis.set_xticklabels([f"{lines:,} lines" for lines in sizes])
        axis.set_title(title)
        axis.grid(axis="y", alpha=0.3)
        if not logarithmic:
            axis.set_ylim(0, max(top, 20) * 1.12)
    handles, names_shown = axes[0].get_legend_handles_labels()
    fig.legend(handles + [goal], names_shown + ["drover's goal"], loc="lower center",
               ncol=len(handles) + 1, fontsize=9, frameon=False)
    loads = [r["load_before"] for r in runs if r.get("load_before") is not None]
    load_text = f", load before runs {min(loads):.2f}-{max(loads):.2f}" if loads else ""
    fig.suptitle(f"drover end to end: {meta['rounds']} round(s), {meta['started']}, "
                 f"{meta['cores']} cores{load_text}; medians, whiskers min-max")
    fig.tight_layout(rect=(0, 0.06, 1, 1))
    fig.savefig(png_path, dpi=110)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(sys.argv[1], sys.argv[2])
