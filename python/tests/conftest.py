"""The package's tests run against the built library and tamrik-sim: $TAMRIK_LIBRARY and
$TAMRIK_SIM name them (scripts/test.sh sets both), else the package looks where it always
does (docs/python.md)."""

import importlib.metadata
import pathlib
import sys

import pytest

PYTHON_DIR = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(PYTHON_DIR))

# Installed, the package brings its plugin in through its entry point; from the sources it is
# named here.
if not any(ep.value == "tamrik.pytest_plugin" for ep in importlib.metadata.entry_points(group="pytest11")):
    pytest_plugins = ["tamrik.pytest_plugin"]

# A station whose every value the tests compare against what the driver reads.
STATION = """\
identity = RIG STATION 7
boot_id = RIG BOOT
version_string = RIG 3.4.5
version = 0x0345
boot_version = 0x0107
gateway_id = 0xC0FFEE01
station_address = 9
operation_mode = 2
switches = 0x00A5
animate_inputs = no
clock = 93784000
gateway_diagnosis = 00 11
error = 0x21 1500
error = 0x42 90061001 DE AD

[module]
id = 0x021101
type = D
input_data = 01 02
output_data = 00 00
parameter_data = 7F
diagnosis_data = 80
status = 0x03
sw_revision = 0x21
type_code = 1

[module]
id = 0x0A9203
type = A
input_data = 10 20 30 40
parameter_data = 01 02 03 04
diagnosis_data = 00 00 00 00 00 00 00 0C
status = 0x01
sw_revision = 0x22
type_code = 2
"""


@pytest.fixture
def station_file(tmp_path: pathlib.Path) -> pathlib.Path:
    path = tmp_path / "station.txt"
    path.write_text(STATION)
    return path
