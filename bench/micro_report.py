#!/usr/bin/env python3
"""Summarises bench_micro's JSON output (run with repetitions): the median of
each benchmark's CPU-time throughput, and for ours beside a reference the ratio
ours / reference (above 1: ours is faster).

    micro_report.py results.json
"""
import json
import sys

# Ours -> the reference measured in the same run.
PAIRS = {
    "BM_CRC32_Update": "BM_Ref_zlib_crc32",
    "BM_MD5": "BM_Ref_OpenSSL_MD5",
    "BM_Encode64": "BM_Ref_EVP_EncodeBlock",
    "BM_Decode64": "BM_Ref_EVP_DecodeBlock",
}


def medians(results):
    out = {}
    for b in results["benchmarks"]:
        if b.get("aggregate_name") == "median":
            out[b["run_name"]] = b
    if not out:  # a run without repetitions
        out = {b["name"]: b for b in results["benchmarks"]}
    # Registration order (random interleaving shuffles the output).
    order = sorted(out.values(), key=lambda b: (b["family_index"], b["per_family_instance_index"]))
    return {b["run_name"]: b for b in order}


def rate(b):
    bps = b.get("bytes_per_second")
    return f"{bps / 1e6:9.1f} MB/s" if bps else ""


def main():
    with open(sys.argv[1]) as f:
        results = json.load(f)
    m = medians(results)
    print(f"{'benchmark':34} {'CPU time':>12} {'throughput':>14}  ratio to reference")
    for name, b in m.items():
        base, _, arg = name.partition("/")
        ratio = ""
        ref = PAIRS.get(base)
        if ref and f"{ref}/{arg}" in m:
            r = m[f"{ref}/{arg}"]
            ratio = f"{b['bytes_per_second'] / r['bytes_per_second']:.2f} x {ref[7:]}"
        label = b.get("label", "")
        unit = b.get("time_unit", "ns")
        print(f"{name:34} {b['cpu_time']:9.0f} {unit:2} {rate(b):>14}  {ratio}{label}")


if __name__ == "__main__":
    main()
