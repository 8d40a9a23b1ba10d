"""The package as users get it: the generated method table is current, pip installs it
offline with its pytest plugin, cmake --install puts it beside the library, and the plugin's
fixtures run a rig's tests."""

import os
import pathlib
import re
import shutil
import subprocess
import sys

import pytest

import tamrik
from tamrik import _library

PYTHON_DIR = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(PYTHON_DIR / "tools"))
import gen_methods  # noqa: E402

SYSTEM_PYTHON = "/usr/bin/python3"

# The rig of docs/python.md, run as it stands there, and a failing test that must still stop
# its simulator.
STOPS_ITS_SIMULATOR = """

def test_failing_rig_still_stops_its_simulator(tamrik_sim):
    import os
    with open(os.environ["RIG_PID_FILE"], "w") as f:
        f.write(str(tamrik_sim.pid))
    assert False, "meant to fail"
"""


def documented_rig() -> dict[str, str]:
    text = (PYTHON_DIR.parent / "docs" / "python.md").read_text()
    blocks = re.findall(r"```python\n# (\w+\.py)[^\n]*\n(.*?)```", text, re.S)
    files = dict(blocks)
    assert set(files) == {"rig.py", "test_rig.py"}
    files["test_rig.py"] += STOPS_ITS_SIMULATOR
    return files


def test_generated_method_table_is_current():
    assert (PYTHON_DIR / "tamrik" / "_methods.py").read_text() == gen_methods.generate(), (
        "python/tamrik/_methods.py is stale: run python/tools/gen_methods.py"
    )
    assert gen_methods.main(["--check"]) == 0


def run_rig(python: str, directory: pathlib.Path, env: dict) -> subprocess.CompletedProcess:
    for name, text in documented_rig().items():
        (directory / name).write_text(text)
    env = dict(env, RIG_PID_FILE=str(directory / "sim.pid"))
    run = subprocess.run(
        [python, "-m", "pytest", "-p", "no:cacheprovider", "-q", "test_rig.py"],
        cwd=directory, env=env, capture_output=True, text=True, timeout=120,
    )
    summary = run.stdout.strip().splitlines()[-1]
    assert re.match(r"1 failed, 4 passed in ", summary), run.stdout + run.stderr
    pid = int((directory / "sim.pid").read_text())
    assert not os.path.exists(f"/proc/{pid}"), "the failing test's simulator still runs"
    return run


def clean_env(**extra: str) -> dict:
    # Without PYTHONPATH the interpreter sees only what was installed.
    env = {k: v for k, v in os.environ.items() if k not in ("PYTHONPATH", "PYTHONHOME")}
    env.update(extra)
    return env


def test_package_and_library_are_of_one_release():
    # The package's declarations are written for one release of the C interface: the library
    # it loads must say the same release and answer to the SONAME the package asks for.
    lib = _library.library()
    assert lib.tamrik_version().decode() == tamrik.__version__
    path = pathlib.Path(_library.library_path())
    names = {p.name for p in path.parent.iterdir() if p.resolve() == path}
    assert _library.SONAME in names, f"{path} is not {_library.SONAME}"


def test_pip_installs_offline_with_the_plugin(tmp_path):
    if not os.path.exists(SYSTEM_PYTHON):
        pytest.skip("no system Python")
    # A copy, so that the build leaves nothing in the sources.
    source = tmp_path / "source"
    shutil.copytree(PYTHON_DIR, source, ignore=shutil.ignore_patterns("__pycache__", "tests", "build", "*.egg-info"))
    venv = tmp_path / "venv"
    subprocess.run([SYSTEM_PYTHON, "-m", "venv", "--system-site-packages", str(venv)], check=True, timeout=120)
    python = str(venv / "bin" / "python")
    install = subprocess.run(
        [python, "-m", "pip", "install", "--no-build-isolation", "--no-index", "--no-deps", str(source)],
        capture_output=True, text=True, timeout=300, cwd=tmp_path,
    )
    assert install.returncode == 0, install.stdout + install.stderr
    env = clean_env(TAMRIK_LIBRARY=_library.library_path())
    where = subprocess.run(
        [python, "-c", "import tamrik, importlib.metadata as m; print(tamrik.__file__); "
         "print([e.value for e in m.entry_points(group='pytest11') if e.name == 'tamrik'])"],
        capture_output=True, text=True, env=env, cwd=tmp_path, check=True, timeout=60,
    ).stdout.splitlines()
    assert where[0].startswith(str(venv))
    assert where[1] == "['tamrik.pytest_plugin']"
    run_rig(python, tmp_path, dict(env, TAMRIK_SIM=tamrik.sim.find_program()))


def test_cmake_install_puts_the_package_beside_the_library(tmp_path):
    build = os.environ.get("TAMRIK_BUILD_DIR")
    if not build:
        pytest.skip("TAMRIK_BUILD_DIR names no build to install")
    prefix = tmp_path / "prefix"
    install = subprocess.run(
        ["cmake", "--install", build, "--prefix", str(prefix)], capture_output=True, text=True, timeout=300
    )
    assert install.returncode == 0, install.stdout + install.stderr
    packages = [p.parent.parent for p in prefix.rglob("tamrik/__init__.py")]
    assert len(packages) == 1
    # Nothing names the library or the simulator: the installation finds its own.
    env = clean_env(PYTHONPATH=str(packages[0]))
    env.pop("TAMRIK_LIBRARY", None)
    env.pop("TAMRIK_SIM", None)
    found = subprocess.run(
        [SYSTEM_PYTHON, "-c", "import tamrik, tamrik.sim; print(tamrik.library_path()); print(tamrik.sim.find_program())"],
        capture_output=True, text=True, env=env, cwd=tmp_path, timeout=60,
    )
    assert found.returncode == 0, found.stderr
    library, program = found.stdout.splitlines()
    assert library.startswith(str(prefix)) and program == str(prefix / "bin" / "tamrik-sim")
    run_rig(SYSTEM_PYTHON, tmp_path, env)

