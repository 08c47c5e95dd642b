#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Who may include whom: check_includes.py ROOT fails on an edge that points upwards.

A file's rank is that of its layer. A public header includes headers of lower ranks, and of its own
rank only along SIDEWAYS; an internal header also public ones of its own rank; a source anything of
its own rank. UPWARDS names the few exceptions, which only sources may have.
"""
import re
import sys
from pathlib import Path

RANKS = [
    "qor_api qor_types qor_version own_names qor_names_open qor_names_close",  # 0 language
    "qor_hal hal_sync hal_thread qor_diag qor_util thread_record"
    " qor_trace trace trace_lane",  # 1 platform
    "rbtree rbapi rbapi_kv qor_names",                        # 2 containers
    "que_front que_waits key_tree time_index qor_que qor_time_que",                         # 3 queues
    "qor_context_msg qor_context_task qor_recycle qor_thread_pool",  # 4 records, pool
    "qor_sys qor_context qor_context_core qor_context_handler qor_context_module"
    " qor_context_forward",                                   # 5 context model
    "qor_topic_epoch qor_topic_core qor_bus qor_bus_worker qor_bus_helper qor_bus_loop qor_bus_drain"
    " qor_start qor_bus_up message_node task_watch bus_sight qor_contract contract bus_periodic deferral_table qor_deferred"
    " qor_sched_register qor_sched_delegate trace_context recorder recorder_absent trace_thread trace_stall",                 # 6 dispatch
    "qor_core_context qor_core_context_lifecycle qor_core_context_tasks qor_impl_context"
    " user_init user_run user_admission contract_queue contract_terms qor_periodic",                                             # 7 context kinds
    "qor_bus_module qor_monitor_module qor_mng_module qor_inspect qor_bus_dump qor_health info wait_circles"
    " qor_bus_health qor_bus_sight qor_bus_explain health_absent",  # 8 system modules, inspection
    "qor_main qor_bus_close qor_bus_check",                                          # 9 start-up
    "qor",                                                    # everything, for applications
]
SIDEWAYS = {
    ("qor_types", "qor_api"), ("rbapi", "rbtree"), ("rbapi_kv", "rbapi"),
    *(("qor_names", map_header) for map_header in ("rbtree", "rbapi", "rbapi_kv")),
    ("qor_bus", "qor_topic_core"), ("qor_bus", "task_watch"), ("qor_bus", "qor_bus_up"), ("qor_bus", "bus_periodic"),
    ("qor_sched_delegate", "qor_bus"), ("user_run", "qor_core_context"), ("contract", "qor_contract"), ("qor_topic_core", "qor_topic_epoch"), ("bus_sight", "qor_bus"), ("qor_health", "qor_inspect"), ("trace", "hal_sync"), ("trace_lane", "trace"), ("user_admission", "qor_core_context"),
}
UPWARDS = {
    ("qor_bus.cpp", "qor_main.h"),
    ("qor_context_core.cpp", "qor_impl_context.h"),
    ("trace_thread.cpp", "qor_inspect.h"),
    ("trace_stall.cpp", "qor_inspect.h"),
}
# The bridge has ranks of its own; below them stand the bus's public headers, and nothing else of it.
MQTT_RANKS = [
    "mqtt_base qor_mqtt",                                     # 0 language, interface
    "mqtt_topic mqtt_config mqtt_outbox",                     # 1 what needs no other
    "mqtt_inbox mqtt_calls",                                  # 2 what knows routes
    "mqtt_properties mqtt_routed",                            # 3 what knows arrivals
    "mqtt_bridge",                                            # 4 the record that both sides share
    "mqtt_arrivals mqtt_outward mqtt_client mqtt_link",       # 5 the sides
    "mqtt_module",                                            # 6 the module
]
MQTT_UPWARDS = {("mqtt_bridge.cpp", "mqtt_link.hpp"), ("mqtt_bridge.cpp", "mqtt_outward.hpp")}
RANK = {name: rank for ranks in (RANKS, MQTT_RANKS) for rank, names in enumerate(ranks) for name in names.split()}


def stem(name):
    """The object a file belongs to; what is private to an object ranks with it."""
    return Path(name).stem.removesuffix("_priv")


def complaint(includer, included):
    """Why one file may not include another, or None."""
    source = includer.endswith(".cpp")
    of, to = stem(includer), stem(included)
    if (includer, included) in UPWARDS | MQTT_UPWARDS or of == to and (source or included.endswith(".h")):
        return None
    if includer.endswith(".h") and included.endswith(".hpp"):
        return "a public header includes an internal one"
    if RANK[to] > RANK[of]:
        return f"rank {RANK[of]} includes rank {RANK[to]}"
    inward = source or includer.endswith(".hpp") and included.endswith(".h")
    if RANK[to] == RANK[of] and not inward and (of, to) not in SIDEWAYS:
        return "two headers of one rank"
    return None


def mqtt_complaints(root):
    """The same for the bridge."""
    outside = {p.name for p in (root / "include").glob("*.h")} | {"qor_hal.h"}
    ranked = {name for names in MQTT_RANKS for name in names.split()}
    for path in sorted((root / "companions/mqtt").rglob("*.[hc]*")):
        if path.suffix not in {".h", ".hpp", ".cpp"}:
            continue
        if stem(path.name) not in ranked:
            yield f"{path.name}: has no rank"
            continue
        for included in re.findall(r'^\s*#\s*include\s*"([^"]+)"', path.read_text(), re.M):
            if included in outside:
                continue
            if stem(included) not in ranked:
                yield f"{path.name}: {included} is neither the bridge's nor public"
            elif why := complaint(path.name, included):
                yield f"{path.name} includes {included}: {why}"


def main(root):
    # The C++ interface stands on the headers as an application does: it has no rank.
    paths = [p for d, kinds in (("include", (".h",)), ("src", (".h", ".hpp", ".cpp")))
             for p in (root / d).rglob("*") if p.suffix in kinds]
    names = {p.name for p in paths}
    found, complaints = set(), []
    for path in paths:
        if stem(path.name) not in RANK:
            complaints.append(f"{path.name}: has no rank")
            continue
        for included in re.findall(r'^\s*#\s*include\s*"([^"]+)"', path.read_text(), re.M):
            found.add((path.name, included))
            if included not in names:
                complaints.append(f"{path.name}: {included} is not of this tree")
            elif why := complaint(path.name, included):
                complaints.append(f"{path.name} includes {included}: {why}")
    complaints += [f"{a} no longer includes {b}: drop the exception" for a, b in UPWARDS - found if a in names]
    public = {n for n in names if n.endswith(".h")} - {"qor.h", "qor_names_open.h", "qor_names_close.h"}
    complaints += [f"qor.h does not include {n}" for n in public if ("qor.h", n) not in found]
    complaints += mqtt_complaints(root)
    print("\n".join(sorted(complaints)) or f"{len(found)} edges, all downwards")
    return len(complaints) > 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
