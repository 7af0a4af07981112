"""tool_test.py - what pack_test.py and run_test.py share: the program, networks, schema checks.

usage: <test>.py OLVEX_DET MAKE_TEST_NETWORK SCHEMA_FOLDER [unittest options]
"""
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

TOOL, MAKE_NETWORK, SCHEMAS = (str(pathlib.Path(path).resolve()) for path in sys.argv[1:4])
TYPES = {"object": dict, "array": list, "string": str, "integer": int, "number": (int, float),
         "null": type(None), "boolean": bool}


def schema_faults(value, schema, root, where="$"):
    """What a value lacks, or has too much of, by the part of JSON Schema that we use."""
    if "$ref" in schema:
        schema = root["$defs"][schema["$ref"].rsplit("/", 1)[1]]
    wanted = schema.get("type", [])
    wanted = [wanted] if isinstance(wanted, str) else wanted
    if wanted and not any(isinstance(value, TYPES[name]) for name in wanted):
        return [f"{where}: {value!r} is not {wanted}"]
    if value not in schema.get("enum", [schema.get("const", value)]):
        return [f"{where}: {value!r} is none of the values"]
    if isinstance(value, (int, float)) and value < schema.get("minimum", value):
        return [f"{where}: {value!r} is too small"]
    faults = []
    if isinstance(value, dict) and "properties" in schema:
        faults += [f"{where}: no {name}" for name in schema.get("required", []) if name not in value]
        for name, member in value.items():
            known = schema["properties"].get(name, schema.get("additionalProperties"))
            faults += (schema_faults(member, known, root, f"{where}.{name}") if known
                       else [f"{where}: {name} is not in the schema"])
    if isinstance(value, list):
        for item in value:
            faults += schema_faults(item, schema.get("items", {}), root, where + "[]")
    return faults


class ToolTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def tool(self, *arguments, code=0, said=(), environment=None, **options):
        """Runs the program in the test's folder; checks its exit code and what its errors say."""
        result = subprocess.run([TOOL, *map(str, arguments)], timeout=60, encoding="utf-8",
                                cwd=self.folder, env={**os.environ, **(environment or {})},
                                **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options})
        self.assertEqual(result.returncode, code, f"{arguments}: {result.stderr}")
        for text in said:
            self.assertIn(text, result.stderr)
        return result

    def assert_fits_schema(self, value, name):
        schema = json.loads((pathlib.Path(SCHEMAS) / f"{name}.schema.json").read_text())
        self.assertEqual(schema_faults(value, schema, schema), [])


def make_network(path, kind, *numbers):
    subprocess.run([MAKE_NETWORK, kind, path, *map(str, numbers)], check=True)


def main():
    unittest.main(argv=[sys.argv[0], *sys.argv[4:]])
