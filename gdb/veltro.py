"""What schedulers, tasks, queues and history hold, of a live process or of a core.

    (gdb) source veltro.py
    (gdb) veltro schedulers | tasks | queues | history [N]

Reads memory only and calls nothing in the process. Needs libKivVeltro's debug information.
"""
import gdb

PRIORITIES = ["absolute", "high", "normal", "low", "scavenge"]
EVENTS = ["schedule", "unschedule", "run start", "run end", "timer start", "timer stop",
          "suspend on", "suspend off", "schedule while suspended", "force yield on",
          "force yield off", "idle", "busy", "create", "delete", "scheduler idle",
          "scheduler runnable", "scheduler suspended", "scheduler unsuspended",
          "run ignored while suspended"]


def kind(name):
    return gdb.lookup_type("Veltro::" + name)


def text(std_string):
    data = std_string["_M_dataplus"]["_M_p"]
    return data.string("utf-8", "replace", int(std_string["_M_string_length"]))


def interned(reference):
    return text(reference["elem_"]["string_"]) if int(reference["elem_"]) else "?"


def milliseconds(duration):
    return "%.3f ms" % (int(duration["__r"]) / 1e6)


def set_of(std_set, element):
    """The elements of a std::set, in order."""
    def walk(node):
        if int(node) == 0:
            return
        yield from walk(node["_M_left"])
        yield (node + 1).cast(element.pointer()).dereference()
        yield from walk(node["_M_right"])
    yield from walk(std_set["_M_t"]["_M_impl"]["_M_header"]["_M_parent"])


def tasks_of(ring, link):
    """The tasks that a list holds through their member `link`; a walk's own place is none."""
    task = kind("TaskImpl")
    offset = next(f.bitpos // 8 for f in task.fields() if f.name == link)
    node = ring["header_"]["next_"]
    while node != ring["header_"].address:
        bookmark = link == "taskRegisteredLink_" and bool(
            node.cast(kind("BookmarkListLinkNode").pointer())["bookmark_"])
        if not bookmark:
            address = node.cast(gdb.lookup_type("char").pointer()) - offset
            yield address.cast(task.pointer()).dereference()
        node = node["next_"]


def roots():
    root = gdb.parse_and_eval("'Veltro::firstSchedulerRoot'")
    while int(root) != 0:
        yield root.dereference()
        root = root["nextRoot_"]


def schedulers():
    for root in roots():
        for scheduler in set_of(root["schedulers_"], kind("TaskScheduler").pointer()):
            yield root, scheduler.dereference()


def registered(scheduler):
    return tasks_of(scheduler["registeredTasks_"], "taskRegisteredLink_")


def queue(scheduler, priority):
    return tasks_of(scheduler["records_"][priority]["runQueue"], "taskRunQueueLink_")


def is_root(root, scheduler):
    return scheduler.address == root.address.cast(kind("TaskScheduler").pointer())


def executing(scheduler):
    task = scheduler["executingTask_"]["_M_ptr"]
    return interned(task["taskName_"]) if int(task) else "-"


class Veltro(gdb.Command):
    """Look into the schedulers of libKivVeltro."""
    def __init__(self):
        super().__init__("veltro", gdb.COMMAND_DATA, prefix=True)


class Schedulers(gdb.Command):
    """List the schedulers: thread, name, what runs now, tasks, worst slip."""
    def __init__(self):
        super().__init__("veltro schedulers", gdb.COMMAND_DATA)

    def invoke(self, argument, from_tty):
        for root, scheduler in schedulers():
            print("%-6s %s (thread %s): runs %s, %d tasks, worst slip %s" % (
                "root" if is_root(root, scheduler) else "group",
                interned(scheduler["name_"]), root["ownerThreadName_"].string(),
                executing(scheduler), sum(1 for _ in registered(scheduler)),
                milliseconds(scheduler["maxSchedulerLatency_"])))


class Tasks(gdb.Command):
    """List all tasks: scheduler, priority, state, runs, time used, worst wait."""
    def __init__(self):
        super().__init__("veltro tasks", gdb.COMMAND_DATA)

    def invoke(self, argument, from_tty):
        for _, scheduler in schedulers():
            for task in registered(scheduler):
                state = ("running" if task["taskCurrentlyRunning_"] else
                         "queued" if int(task["taskRunQueueLink_"]["next_"]) else "-")
                print("%s: %s %s %s, %d runs, %s in all, worst wait %s (Veltro::TaskImpl *) 0x%x" % (
                    interned(scheduler["name_"]), interned(task["taskName_"]),
                    PRIORITIES[int(task["taskPriority_"]["value_"])], state,
                    int(task["taskRunCount_"]), milliseconds(task["totalRunTime_"]),
                    milliseconds(task["maxSchedulingLatency_"]), int(task.address)))


class Queues(gdb.Command):
    """List the run queues that are not empty, first come first."""
    def __init__(self):
        super().__init__("veltro queues", gdb.COMMAND_DATA)

    def invoke(self, argument, from_tty):
        for _, scheduler in schedulers():
            for priority, name in enumerate(PRIORITIES):
                waiting = [interned(task["taskName_"]) for task in queue(scheduler, priority)]
                if waiting:
                    print("%s %s: %s" % (interned(scheduler["name_"]), name, " ".join(waiting)))


class History(gdb.Command):
    """Show the newest events of each thread, newest first: 20, or as many as are asked for."""
    CAPACITY = 10000

    def __init__(self):
        super().__init__("veltro history", gdb.COMMAND_DATA)

    def invoke(self, argument, from_tty):
        limit = int(argument or 20)
        for root in roots():
            history = root["history_"]["_M_ptr"]
            # A unique_ptr is its pointer; its members are named after the library that made it.
            event = kind("TaskSchedulerHistory::Event")
            events = history["events_"].address.cast(event.pointer().pointer()).dereference()
            newest = int(history["newest_"])
            print("%s, the newest of %d events:" % (interned(root["name_"]), int(history["count_"])))
            for age in range(min(limit, int(history["count_"]))):
                event = events[(newest + age) % self.CAPACITY]
                print("  %d %s %s" % (int(event["time_"]["__d"]["__r"]),
                                      EVENTS[int(event["type_"])], interned(event["subject_"])))


Veltro()
Schedulers()
Tasks()
Queues()
History()
