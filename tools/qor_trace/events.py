# SPDX-License-Identifier: Apache-2.0
"""Numbers of a recording, and what the fields of each type of event mean."""

TIME, FROM, REQUEST, START, END, DROP, POST, DUE, CANCEL, BYPASS, REGISTER, LIFECYCLE, WAIT, \
    WAITED, QUIT, MARK, NAME, STALL, LINE, DEFERRED, COMPLETED, LOST, MISSED = range(1, 24)

# Kinds of what a thread is inside. WAITING is this tool's own: between WAIT and WAITED.
KINDS = ("request", "response", "listen before", "listen after", "filter before", "filter after",
         "task", "call", "system", "init", "reg")
KIND_REQUEST, KIND_RESPONSE, KIND_TASK, KIND_CALL, KIND_SYSTEM = 0, 1, 6, 7, 8
KINDS_OF_TURN = (0, 1, 2, 3, 6)  # bounded by the limit of a strict module
KINDS_LISTEN = (2, 3)
KINDS_WITHOUT_TOPIC = (6, 9, 10)
WAITING = -1

REASONS = {1: "no subscriber", 2: "no memory", 3: "refused", 4: "discarded"}
REFUSED, DISCARDED = 3, 4
FOR_LISTENER = 64  # added to a reason when the message was a listener's
WAITS = {5: "start", 6: "pause", 7: "drain", 8: "slot", 9: "room", 10: "wait_up", 11: "workers",
         12: "console"}
WAITS_OF = {5: "the start of {}", 6: "the pause of {}", 7: "the threads to have nothing to do",
            8: "a slot of {}", 9: "room in {}", 10: "modules to be up",
            11: "the workers to end", 12: "the console of {} to end"}
BY_DISCARD = 2
COMPLETIONS = {0: "handler", 1: "time limit", 2: "discarded"}
LOSSES = {0: "oldest", 1: "newest", 2: "transfer", 3: "refused"}
LOSSES_OF = ("request", "listener's", "task")  # each 16 more than the one before
TO_SYSTEM, MOVED = 1, 2  # of a request: its topic is the bus's own; handed on to a newer subscriber
LEVELS = {3: "err", 4: "wrn", 6: "inf"}
REGISTRATIONS = {of + more: word + note for more, note in (
    (0, ""), (64, ", system"), (128, ", removed"), (192, ", system, removed"))
                 for of, word in enumerate(("subscribe", "listen", "filter"))}
ROLES = ("shared", "worker", "loop", "other")


def reason(detail):
    """Why a message was dropped."""
    text = REASONS.get(detail & ~FOR_LISTENER, f"reason {detail & ~FOR_LISTENER}")
    return f"listener's, {text}" if detail & FOR_LISTENER else text


def loss(detail):
    """What was lost of a contract, and why."""
    of, why = divmod(detail, 16)
    of = LOSSES_OF[of] if of < len(LOSSES_OF) else f"kind {of}"
    return f"{of}, {LOSSES.get(why, f'reason {why}')}"


def wait(detail, who):
    """For what somebody waits."""
    return "waits for " + WAITS_OF.get(detail, f"{{}}, reason {detail}").format(who)


def kind(number):
    """What a span is, in a word or two."""
    if number == WAITING:
        return "wait"
    return KINDS[number] if number < len(KINDS) else f"kind {number}"


# Type: its name, and its fields: what each is called, and where it stands. 'who' is a context.
FIELDS = {
    FROM: ("from", (("who", "who"), ("session", "session"), ("topic", "arg"))),
    REQUEST: ("request", (("who", "who"), ("session", "session"), ("topic", "arg"),
                          ("flags", "detail"))),
    START: ("start", (("who", "who"), ("kind", "detail"), ("session", "session"),
                      ("topic", "arg"), ("name", "text"))),
    END: ("end", (("who", "who"), ("kind", "detail"), ("session", "session"), ("result", "arg"))),
    DROP: ("drop", (("who", "who"), ("reason", "detail"), ("session", "session"),
                    ("topic", "arg"))),
    POST: ("post", (("who", "who"), ("session", "session"), ("delay_ms", "arg"))),
    DUE: ("due", (("session", "session"), ("late_ms", "arg"))),
    CANCEL: ("cancel", (("who", "who"), ("session", "session"), ("result", "arg"))),
    BYPASS: ("bypass", (("who", "who"), ("session", "session"), ("delay_ms", "arg"))),
    REGISTER: ("register", (("who", "who"), ("what", "detail"), ("topic", "arg"))),
    LIFECYCLE: ("lifecycle", (("who", "who"), ("before", "session"), ("now", "arg"))),
    WAIT: ("wait", (("who", "who"), ("reason", "detail"), ("allowed_ms", "arg"))),
    WAITED: ("waited", (("who", "who"), ("reason", "detail"), ("allowed_ms", "arg"))),
    QUIT: ("quit", ()),
    MARK: ("mark", (("id", "session"), ("value", "arg"))),
    STALL: ("stall", (("who", "who"), ("session", "session"), ("ms", "arg"))),
    LINE: ("line", (("level", "detail"), ("text", "text"))),
    DEFERRED: ("deferred", (("who", "who"), ("session", "session"), ("topic", "arg"))),
    COMPLETED: ("completed", (("who", "who"), ("how", "detail"), ("session", "session"),
                              ("result", "arg"))),
    LOST: ("lost", (("who", "who"), ("reason", "detail"), ("session", "session"),
                    ("topic", "arg"))),
    MISSED: ("missed", (("who", "who"), ("session", "session"), ("count", "arg"))),
}
OTHER = ("other", (("type", "type"), ("detail", "detail"), ("who", "who"), ("session", "session"),
                   ("value", "arg")))

# The fields whose numbers have names.
NAMED = {
    (START, "kind"): dict(enumerate(KINDS)),
    (END, "kind"): dict(enumerate(KINDS)),
    (DROP, "reason"): {d | f: reason(d | f) for f in (0, FOR_LISTENER) for d in REASONS},
    (REGISTER, "what"): REGISTRATIONS,
    (WAIT, "reason"): WAITS,
    (WAITED, "reason"): WAITS,
    (LINE, "level"): LEVELS,
    (COMPLETED, "how"): COMPLETIONS,
    (LOST, "reason"): {16 * of + why: loss(16 * of + why) for of in range(3) for why in LOSSES},
}
