"""soak.py AGENT MINUTES: the rounds, the faults and the table of script/soak."""
import contextlib
import os
import random
import resource
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

FILES = 300  # in the tree between rounds
WARM_UP = 0.3  # of the samples: the history ring and the heap fill first

random.seed(1)


def looks():
    for _ in range(10):
        yield
        time.sleep(0.03)


class Agent:
    def __init__(self, program, scratch, tree, counters):
        self.path = scratch + "/socket"
        words = [program, "--stay", "--socket", self.path]
        if counters:
            words += ["--counters", "soak"]
        self.log = open(scratch + "/log", "w")
        self.process = subprocess.Popen(words + [tree], stderr=self.log, stdout=self.log)

    @property
    def pid(self):
        return self.process.pid

    def connect(self, patience=600):
        connection = socket.socket(socket.AF_UNIX)
        connection.settimeout(60)
        for _ in range(patience):
            with contextlib.suppress(BlockingIOError):  # too many wait to be let in
                connection.connect(self.path)
                break
            time.sleep(0.05)
        return connection

    def ask(self, question):
        """The answer's lines; None when the agent turned the asker away."""
        with self.connect() as connection:
            try:
                connection.sendall(question.encode() + b"\n")
                answer = b""
                while not answer.endswith(b".\n"):
                    piece = connection.recv(65536)
                    if not piece:
                        return None
                    answer += piece
            except (ConnectionResetError, BrokenPipeError):
                return None
        return answer.decode(errors="replace").splitlines()[:-1]

    def stat(self):
        answer = self.ask("stat")
        return dict(line.split(" ", 1) for line in answer) if answer else {}

    def settled(self, files):
        """Waits until it knows the tree; a minute is more than it may need."""
        for _ in range(1200):
            with contextlib.suppress(OSError):
                stat = self.stat()
                if (stat.get("files"), stat.get("waiting"), stat.get("state")) == (
                    str(files), "0", "done"):
                    return
            if self.process.poll() is not None:
                raise SystemExit(f"soak: the agent has ended with {self.process.returncode}")
            time.sleep(0.05)
        raise SystemExit(f"soak: {files} files, but the agent says {self.stat()}")

    def sample(self):
        proc = f"/proc/{self.pid}"
        with open(proc + "/status") as status:
            fields = dict(line.split(":", 1) for line in status)
        # The last askers are seen gone within these looks.
        descriptors = min((os.listdir(proc + "/fd") for _ in looks()), key=len)
        watches = 0
        for descriptor in descriptors:
            with contextlib.suppress(OSError), open(f"{proc}/fdinfo/{descriptor}") as info:
                watches += sum(line.startswith("inotify ") for line in info)
        report = self.ask("report")
        first = next(i for i, line in enumerate(report) if line.startswith("TaskName ")) + 2
        tasks = report[first:]
        tasks = tasks[: tasks.index("")] if "" in tasks else tasks
        # The second column: T for a timer that runs.
        timers = sum(line.split()[1].startswith("T") for line in tasks)
        return {
            "resident KiB": int(fields["VmRSS"].split()[0]),
            "data KiB": int(fields["VmData"].split()[0]),
            "descriptors": len(descriptors),
            "watches": watches,
            "threads": int(fields["Threads"]),
            "tasks": len(tasks),
            "timers": timers,
        }


class Tree:
    def __init__(self, path):
        self.path = path
        self.put_back()

    def put_back(self):
        """The same names again, with other contents."""
        for name in os.listdir(self.path) if os.path.isdir(self.path) else []:
            full = os.path.join(self.path, name)
            shutil.rmtree(full) if os.path.isdir(full) else os.unlink(full)
        for i in range(FILES):
            self.write(f"{i % 10}/{i}", random.randrange(5000))

    def write(self, name, size):
        full = os.path.join(self.path, name)
        os.makedirs(os.path.dirname(full), exist_ok=True)
        with open(full, "wb") as file:
            file.write(os.urandom(size))

    def change(self, times):
        for _ in range(times):
            directory = random.randrange(15)
            name = f"{directory}/{random.randrange(60)}"
            with contextlib.suppress(OSError):
                match random.randrange(7):
                    case 0 | 1 | 2:
                        self.write(name, random.randrange(5000))
                    case 3:
                        os.unlink(os.path.join(self.path, name))
                    case 4:
                        os.rename(os.path.join(self.path, name),
                                  os.path.join(self.path, f"{directory}/moved{random.randrange(9)}"))
                    case 5:
                        os.rename(os.path.join(self.path, str(directory)),
                                  os.path.join(self.path, str(random.randrange(20))))
                    case 6:
                        os.symlink("nowhere", os.path.join(self.path, name))


def ask_politely(agent, tree, times):
    questions = ["stat", "report", "history 200", "find cbf29ce484222325", "file " + tree.path]
    for _ in range(times):
        agent.ask(random.choice(questions) if random.randrange(4) else f"file {tree.path}/1/1")


def ask_rudely(agent, times):
    """Half a question, garbage, too long a line, an answer nobody reads, a hang-up at once."""
    for _ in range(times):
        with contextlib.suppress(OSError), agent.connect() as connection:
            match random.randrange(5):
                case 0:
                    connection.sendall(b"sta")
                case 1:
                    connection.sendall(os.urandom(200) + b"\n")
                case 2:
                    connection.sendall(b"x" * 5000)
                    connection.recv(100)
                case 3:
                    connection.sendall(b"report\nhistory 10000\n" * 5)


def fault_stopped(agent, tree):
    os.kill(agent.pid, signal.SIGSTOP)
    tree.change(4000)
    with contextlib.suppress(OSError):
        askers = [agent.connect(patience=1) for _ in range(10)]
        for asker in askers:
            asker.sendall(b"stat\n")
    os.kill(agent.pid, signal.SIGCONT)


def fault_no_descriptors(agent, tree):
    limits = resource.prlimit(agent.pid, resource.RLIMIT_NOFILE)
    used = len(os.listdir(f"/proc/{agent.pid}/fd"))
    resource.prlimit(agent.pid, resource.RLIMIT_NOFILE, (used + 3, limits[1]))
    clients = []
    for _ in range(40):
        with contextlib.suppress(OSError):
            clients.append(agent.connect(patience=1))
    tree.change(200)
    time.sleep(0.3)
    for client in clients:
        client.close()
    resource.prlimit(agent.pid, resource.RLIMIT_NOFILE, limits)
    tree.change(50)


def fault_full_disk(agent, tree):
    fillers = [os.path.join(os.path.dirname(tree.path), "filler"), "/var/filler"]
    for filler in fillers:
        with contextlib.suppress(OSError), open(filler, "wb", buffering=0) as file:
            while True:
                file.write(bytes(65536))
    tree.change(300)
    ask_politely(agent, tree, 20)
    for filler in fillers:
        with contextlib.suppress(OSError):
            os.unlink(filler)


def fault_unreadable(agent, tree):
    """Files that shrink and go while they are read, and FIFOs that nobody writes."""
    for i in range(20):
        with contextlib.suppress(OSError):
            os.mkfifo(f"{tree.path}/fifo{i}")
            tree.write(f"large/{i}", 300000)
            os.truncate(f"{tree.path}/large/{i}", 10)
            os.unlink(f"{tree.path}/large/{i}")


def fault_killed_askers(agent, tree):
    """Forked askers that die in the middle of a question."""
    for _ in range(20):
        child = os.fork()
        if child == 0:
            with contextlib.suppress(Exception):
                connection = agent.connect()
                connection.sendall(b"history 10000\nsta")
                os.kill(os.getpid(), signal.SIGKILL)
            os._exit(1)
        os.waitpid(child, 0)


def slope_per_hour(times, values):
    mean_time, mean_value = sum(times) / len(times), sum(values) / len(values)
    spread = sum((t - mean_time) ** 2 for t in times)
    lean = sum((t - mean_time) * (v - mean_value) for t, v in zip(times, values))
    return 3600 * lean / spread if spread else 0.0


def grows(name, values):
    """Counts go up and down; memory keeps within what an allocator's moods are."""
    third = max(1, len(values) // 3)
    if not name.endswith("KiB"):
        return min(values[-third:]) > max(values[:third])
    early, late = sum(values[:third]) / third, sum(values[-third:]) / third
    return late > early * 1.03 + 256


def table(samples):
    kept = samples[int(len(samples) * WARM_UP):]
    times = [time for time, _ in kept]
    print(f"{len(samples)} rounds, the first {len(samples) - len(kept)} to warm up")
    print(f"{'':<14}{'first':>10}{'last':>10}{'least':>10}{'most':>10}{'an hour':>12}")
    growing = []
    for name in kept[0][1]:
        values = [sample[name] for _, sample in kept]
        if grows(name, values):
            growing.append(name)
        print(f"{name:<14}{values[0]:>10}{values[-1]:>10}{min(values):>10}{max(values):>10}"
              f"{slope_per_hour(times, values):>+12.1f}{'  grows' if name in growing else ''}")
    return growing


def main():
    program, minutes = sys.argv[1], float(sys.argv[2])
    private = os.path.ismount("/mnt") and os.path.ismount("/var")
    faults = [fault_stopped, fault_no_descriptors, fault_unreadable, fault_killed_askers]
    faults += [fault_full_disk] if private else []
    with tempfile.TemporaryDirectory(dir="/mnt" if private else None) as scratch:
        tree = Tree(scratch + "/tree")
        agent = Agent(program, scratch, tree.path, private)
        try:
            agent.settled(FILES)
            start, samples, round_number = time.monotonic(), [], 0
            while time.monotonic() - start < 60 * minutes:
                tree.change(500)
                ask_politely(agent, tree, 60)
                ask_rudely(agent, 30)
                faults[round_number % len(faults)](agent, tree)
                tree.change(100)
                tree.put_back()
                agent.settled(FILES)
                samples.append((time.monotonic() - start, agent.sample()))
                round_number += 1
            agent.ask("quit")
            status = agent.process.wait(timeout=30)
        finally:
            agent.process.kill()
            agent.process.wait()
    growing = table(samples)
    if status not in (0, 1):
        raise SystemExit(f"soak: the agent ended with {status}")
    if growing:
        raise SystemExit("soak: grows: " + ", ".join(growing))
    print("soak: flat")


main()
