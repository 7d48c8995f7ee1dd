"""A worker's own copy of the tree with its own build: what it plants never touches the checkout."""
import hashlib
import json
import os
import re
import resource
import shutil
import signal
import subprocess
import time
from pathlib import Path

SLOW_S = 1.0           # tests that take longer come after all quick ones
HANG_FACTOR, HANG_S = 4, 4  # a run is a hang after so many times its usual length and so many seconds more
MARK = 'VEXA_PLANT'    # in the environment of all that a run starts
MEMORY, FILE_SIZE = 8 << 30, 1 << 30  # what a fault may eat up
PASSED = re.compile(r'\[       OK \] (\S+?)(?:, where .*)? \((\d+) ms\)')
RUN = re.compile(r'^\[ RUN      \] (\S+)', re.M)
FAILED = re.compile(r'^\[  FAILED  \] (\w\S*\.[^\s,]+)', re.M)


class Broken(Exception):
    """The tree as it is does not build, or its tests do not pass."""


def checkout_files(root):
    listed = subprocess.run(['git', 'ls-files', '-z', '--cached', '--others', '--exclude-standard'],
                            cwd=root, check=True, capture_output=True, text=True).stdout
    return [name for name in listed.split('\0') if name and (root / name).is_file()]


def write_if_other(path, data):
    """Keeps the time of a file that is the same already, so that nothing is built for it."""
    if path.is_file() and path.read_bytes() == data:
        return
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(data)


def limits():
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))
    resource.setrlimit(resource.RLIMIT_FSIZE, (FILE_SIZE, FILE_SIZE))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


class Step:
    """Some tests of one binary, and how long they take when nothing is planted."""
    def __init__(self, binary, pattern, seconds=60.0):
        self.binary, self.pattern, self.seconds = binary, pattern, seconds

    def command(self, build):
        return [str(build / 'bin' / self.binary), '--gtest_fail_fast', f'--gtest_filter={self.pattern}']


class Workshop:
    def __init__(self, root, number):
        self.root = root
        self.home = root / 'build' / 'plant' / str(number)
        self.tree, self.build_dir = self.home / 'tree', self.home / 'build'
        self.original, self.objects, self.commands, self.running = {}, {}, {}, None
        self.environment = dict(os.environ, CCACHE_BASEDIR=str(self.home), CCACHE_NOHASHDIR='1')

    def prepare(self):
        """Copies what has changed in the checkout, and lets CMake look at it."""
        wanted = checkout_files(self.root)
        for name in wanted:
            write_if_other(self.tree / name, (self.root / name).read_bytes())
            shutil.copymode(self.root / name, self.tree / name)
        known = set(wanted)
        for path in [path for path in self.tree.rglob('*') if path.is_file()]:
            if str(path.relative_to(self.tree)) not in known:
                path.unlink()
        self._run(['cmake', '-S', self.tree, '-B', self.build_dir, *cmake_options()])
        self.commands = {entry['file']: entry['command']
                         for entry in json.loads((self.build_dir / 'compile_commands.json').read_text())}
        listed = self._run(['ninja', '-C', self.build_dir, '-t', 'targets', 'rule', 'phony'])
        self.targets = set(listed.split())

    def _run(self, command):
        done = subprocess.run(command, env=self.environment, capture_output=True, text=True)
        if done.returncode != 0:
            raise Broken(f'{" ".join(map(str, command))}\n{done.stdout[-4000:]}{done.stderr[-4000:]}')
        return done.stdout

    def build_all(self, targets, jobs):
        self._run(['ninja', '-C', self.build_dir, f'-j{jobs}', *targets])
        self.environment['CCACHE_DISABLE'] = '1'  # from here on nothing is compiled twice
        self._read_dependencies()

    def _read_dependencies(self):
        """Which objects are made from a file, and what they look like."""
        objects = {}
        made = None
        for line in self._run(['ninja', '-C', self.build_dir, '-t', 'deps']).splitlines():
            if line and not line.startswith(' '):
                made = line.split(':')[0]
            elif line:
                path = os.path.normpath(self.build_dir / line.strip())
                objects.setdefault(path, []).append(made)
        self.objects = {path: [made for made in names if (self.build_dir / made).is_file()]
                        for path, names in objects.items() if path.startswith(str(self.tree))}
        self.sums = {made: self._sum(made) for names in self.objects.values() for made in names}

    def _sum(self, made):
        return hashlib.sha1((self.build_dir / made).read_bytes()).digest()

    def objects_of(self, paths):
        return sorted({made for path in paths for made in self.objects.get(str(self.tree / path), [])})

    def seen_by(self, paths):
        """The test binaries that are linked of what is made from these files, the smallest first."""
        made = set(self.objects_of(paths))
        binaries = [name for name in sorted(self.targets) if name.endswith('_test')]
        inputs = {name: set(self._run(['ninja', '-C', self.build_dir, '-t', 'inputs', name]).split())
                  for name in binaries}
        return sorted((name for name in binaries if inputs[name] & made), key=lambda name: len(inputs[name]))

    # ---- Planting

    def plant(self, files):
        for name, text in files.items():
            path = self.tree / name
            self.original[name] = path.read_bytes()
            path.write_text(text)

    def put_back(self):
        """Written anew, so younger than what was built of the fault: ninja builds it again."""
        for name, data in self.original.items():
            (self.tree / name).write_bytes(data)
        self.original = {}

    def builds(self, targets):
        return subprocess.run(['ninja', '-C', self.build_dir, '-j1', *targets], env=self.environment,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0

    def is_unchanged(self, objects):
        return all(self._sum(made) == self.sums[made] for made in objects)

    def is_thread_safe(self, paths):
        """What clang's check of the annotations says, as in the checks before a change goes in."""
        for path in paths:
            command = self.commands.get(str(self.tree / path))
            if not command or not shutil.which('clang++'):
                continue
            flags = [flag for flag in re.findall(r'(?:-isystem |-[ID])\S+|-std=\S+', command)]
            check = ['clang++', '-fsyntax-only', '-Wno-everything', '-Wthread-safety', '-Werror=thread-safety',
                     *' '.join(flags).split(), str(self.tree / path)]
            if subprocess.run(check, capture_output=True, cwd=self.build_dir).returncode != 0:
                return False
        return True

    # ---- Running tests

    def run(self, step):
        """The test that failed or hung, and how; None when all passed. Only what happens twice counts: a test
        that fails once may have been disturbed by what else is at work on this machine."""
        test, how = self._run_once(step)
        if how is None:
            return None
        if how == 'hangs' and test:
            step = Step(step.binary, test, step.seconds)
        return f'{test} {how}' if self._run_once(step)[1] else None

    def _run_once(self, step):
        output, code = self.output(step, HANG_FACTOR * step.seconds + HANG_S)
        if code == 0:
            return None, None
        if failed := FAILED.search(output):
            return failed.group(1), 'fails'
        begun = RUN.findall(output)
        return begun[-1] if begun else '', 'hangs' if code is None else 'crashes'

    def output(self, step, seconds):
        """What a run printed, and its exit code; no code: it did not end in time."""
        log = self.home / 'output'
        with open(log, 'wb') as out:
            self.running = subprocess.Popen(step.command(self.build_dir), cwd=self.build_dir, stdin=subprocess.DEVNULL,
                                            stdout=out, stderr=subprocess.STDOUT, preexec_fn=limits,
                                            env=dict(os.environ, **{MARK: str(self.home)}))
            try:
                code = self.running.wait(seconds)
            except subprocess.TimeoutExpired:
                code = None
        if code != 0:
            self.end_run()
        return log.read_bytes()[-1 << 20:].decode(errors='replace'), code

    def end_run(self):
        """Ends a run and the programs that it has left behind, which bear its mark."""
        if self.running:
            self.running.kill()
            self.running.wait()
        mark = f'{MARK}={self.home}'.encode()
        for entry in Path('/proc').glob('[0-9]*/environ'):
            try:
                if mark in entry.read_bytes().split(b'\0'):
                    os.kill(int(entry.parent.name), signal.SIGKILL)
            except OSError:
                pass  # it has ended, or is somebody else's

    def measure(self, binary, pattern):
        """The steps of a binary, quick tests apart from slow ones. Its tests have to pass."""
        begin = time.monotonic()
        output, code = self.output(Step(binary, pattern), 600)
        if code != 0:
            raise Broken(f'{binary} fails with nothing planted:\n{output[-4000:]}')
        taken = {name: int(ms) / 1000 for name, ms in PASSED.findall(output)}
        slow = sorted(name for name, seconds in taken.items() if seconds > SLOW_S)
        rest = time.monotonic() - begin - sum(taken[name] for name in slow)
        steps = [Step(binary, f'{pattern}{"" if "-" in pattern else "-"}:{":".join(slow)}' if slow else pattern, rest)]
        return steps if len(taken) > len(slow) else [], [Step(binary, name, taken[name]) for name in slow]


def cmake_options():
    linker = next((f'-fuse-ld={name} -Wl,-O0' for name in ('mold', 'lld') if shutil.which(f'ld.{name}')), '')
    options = ['-G', 'Ninja', '-Wno-dev', '-DCMAKE_BUILD_TYPE=Debug', '-DCMAKE_C_FLAGS_DEBUG=-O1',
               '-DCMAKE_CXX_FLAGS_DEBUG=-O1', f'-DCMAKE_EXE_LINKER_FLAGS={linker}',
               '-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST']
    if shutil.which('ccache'):
        options += ['-DCMAKE_C_COMPILER_LAUNCHER=ccache', '-DCMAKE_CXX_COMPILER_LAUNCHER=ccache']
    return options
