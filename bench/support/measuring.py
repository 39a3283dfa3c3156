"""What the measuring scripts of the running application share: a throw-away profile with its own tracker
folder, the simulated tracker, a process's figures from /proc, and ending the programs a run started."""

import os, shutil, signal, subprocess, tempfile


class Profile:
    """A throw-away home and XDG folders (and a runtime folder of the owner only), removed by close()."""

    def __init__(self, prefix, simtracker, **extra_env):
        self.folder = tempfile.mkdtemp(prefix=prefix)
        self.env = dict(os.environ)
        self.env.update(HOME=self.folder, XDG_CONFIG_HOME=self.folder + "/.config",
                        XDG_DATA_HOME=self.folder + "/.local/share", XDG_STATE_HOME=self.folder + "/.local/state",
                        XDG_CACHE_HOME=self.folder + "/.cache", XDG_RUNTIME_DIR=self.folder + "/run",
                        HOURLOOM_TEST_NO_KEYCHAIN="1", **extra_env)
        os.makedirs(self.env["XDG_RUNTIME_DIR"], mode=0o700)
        self.tracker = self.env["XDG_DATA_HOME"] + "/Stintwatch"
        self.simtracker = simtracker
        self.children = []

    def sim(self, *args):
        subprocess.run([self.simtracker, "--folder", self.tracker, "--allow-real-folder", *args], env=self.env,
                       check=True, stdout=subprocess.DEVNULL)

    def start(self, command, **popen):
        """Starts a program that runs until close()."""
        child = subprocess.Popen(command, env=popen.pop("env", self.env), **popen)
        self.children.append(child)
        return child

    def close(self):
        for child in self.children:
            child.send_signal(signal.SIGTERM)
            try:
                child.wait(timeout=30)
            except subprocess.TimeoutExpired:
                child.kill()
        shutil.rmtree(self.folder, ignore_errors=True)


def status_kib(pid, key):
    """A figure of /proc/<pid>/status in KiB (VmRSS, VmHWM, RssAnon, RssFile); 0 when absent."""
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith(key + ":"):
                return int(line.split()[1])
    return 0
