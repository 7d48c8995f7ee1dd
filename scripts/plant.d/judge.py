"""What becomes of a planted fault, and the workers that find out."""
import queue
import threading
from dataclasses import dataclass

from workshop import Workshop

NOTICED, SURVIVED, EQUAL, UNCOMPILABLE = 'noticed', 'survived', 'equal', 'does not compile'
CHUNK = 6  # faults of one file that a worker takes at once: the file is compiled once more at each change


@dataclass
class Fault:
    title: str   # one line
    kind: str
    files: dict  # path: the text with the fault
    races: bool = False
    verdict: str = ''
    by: str = ''

    @property
    def path(self):
        return next(iter(self.files))


def read_test_map(file):
    rows = [line.split(':', 1) for line in file.read_text().splitlines() if line.strip() and not line.startswith('#')]
    return {folder.strip(): binaries.split() for folder, binaries in rows}


class Judges:
    def __init__(self, root, test_map, jobs, say):
        self.shops = [Workshop(root, number + 1) for number in range(jobs)]
        self.test_map, self.say = test_map, say
        self.steps, self.speaking = {}, threading.Lock()
        self.stopped = threading.Event()

    # ---- Before anything is planted

    def prepare(self, paths):
        """Builds what looks at these files in every worker's copy, and runs it with nothing planted."""
        for shop in self.shops:
            shop.prepare()
        wanted = {binary.partition('=')[0] for path in paths for binary in self._named(path)}
        unnamed = [path for path in paths if not self._named(path)]
        targets = sorted(wanted & self.shops[0].targets) if not unnamed else ['all']
        for name in sorted(wanted - self.shops[0].targets):
            self.say(f'not built here, so left out: {name}')
        for shop in self.shops:  # one after the other: the second finds in ccache what the first compiled
            shop.build_all(targets, len(self.shops))
        self.binaries = {path: self._named(path) or self._linked(path) for path in paths}
        self._measure(sorted({binary for path in paths for binary in self.binaries[path]}))

    def _named(self, path):
        fitting = [folder for folder in self.test_map if path == folder or path.startswith(folder + '/')]
        return self.test_map[max(fitting, key=len)] if fitting else []

    def _linked(self, path):
        return [name for name in self.shops[0].seen_by([path]) if name != 'storm_test']

    def _measure(self, binaries):
        waiting = queue.Queue()
        for binary in binaries:
            if binary.partition('=')[0] in self.shops[0].targets:
                waiting.put(binary)

        def work(shop):
            for binary in taken(waiting):
                name, _, pattern = binary.partition('=')
                self.steps[binary] = shop.measure(name, pattern or '*')
        self._on_all(work)

    def _on_all(self, work):
        failures = []

        def guarded(shop):
            try:
                work(shop)
            except Exception as failure:  # said by the main thread
                failures.append(failure)
                self.stopped.set()
        threads = [threading.Thread(target=guarded, args=(shop,), daemon=True) for shop in self.shops]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        if failures:
            raise failures[0]

    def stop(self):
        """For an end ahead of time: nothing goes on running."""
        self.stopped.set()
        for shop in self.shops:
            shop.end_run()

    # ---- Judging

    def judge(self, faults):
        """Gives every fault its verdict, and says it. Faults of one file come after each other."""
        waiting = queue.Queue()
        for chunk in chunks(faults):
            waiting.put(chunk)

        def work(shop):
            for chunk in taken(waiting):
                for fault in chunk:
                    if self.stopped.is_set():
                        return
                    self._judge_one(shop, fault)
                    self._tell(fault)
        self._on_all(work)

    def _judge_one(self, shop, fault):
        shop.plant(fault.files)
        try:
            fault.verdict, fault.by = self._verdict(shop, fault)
        finally:
            shop.put_back()

    def _verdict(self, shop, fault):
        objects = shop.objects_of(fault.files)
        if not shop.builds(objects):
            return UNCOMPILABLE, ''
        if objects and shop.is_unchanged(objects):
            return EQUAL, ''
        if fault.races and not shop.is_thread_safe(fault.files):
            return NOTICED, 'clang -Wthread-safety'
        for step in self._steps_for(fault):
            if not shop.builds([step.binary]):
                return UNCOMPILABLE, ''
            failure = shop.run(step)
            if failure:
                return NOTICED, f'{step.binary} ({failure})'
        return SURVIVED, ''

    def _steps_for(self, fault):
        binaries = list(dict.fromkeys(name for path in fault.files for name in self.binaries[path]))
        measured = [self.steps[name] for name in binaries if name in self.steps]
        return [step for quick, _ in measured for step in quick] + [step for _, slow in measured for step in slow]

    def _tell(self, fault):
        with self.speaking:
            by = f' by {fault.by}' if fault.by else ''
            self.say(f'{fault.verdict}{by}: {fault.title}')


def taken(waiting):
    while True:
        try:
            yield waiting.get_nowait()
        except queue.Empty:
            return


def chunks(faults):
    by_file = {}
    for fault in faults:
        by_file.setdefault(fault.path, []).append(fault)
    return [same[i:i + CHUNK] for _, same in sorted(by_file.items()) for i in range(0, len(same), CHUNK)]
