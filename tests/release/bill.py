"""The bill of materials of a release: valid CycloneDX, and what it has to tell.

    bill.py BILL LIST

The schemas beside it are those that CycloneDX publishes.
"""

import hashlib
import json
import pathlib
import sys

import jsonschema

HERE = pathlib.Path(__file__).parent


def schema(name):
    return json.loads((HERE / name).read_text(encoding="utf-8"))


def check(bill_path, list_path):
    bill = json.loads(bill_path.read_text(encoding="utf-8"))
    rules = schema("bom-1.4.schema.json")
    others = ("spdx", "jsf-0.82")
    where = rules["$id"].rpartition("/")[0]
    store = {f"{where}/{name}.SNAPSHOT.schema.json": schema(f"{name}.schema.json") for name in others}
    resolver = jsonschema.RefResolver(rules["$id"], rules, store=store)
    validator = jsonschema.Draft7Validator(rules, resolver=resolver)
    validator.validate(bill)
    assert not validator.is_valid(bill | {"components": [{"type": "library"}]})

    components = {one["bom-ref"]: one for one in bill["components"]}
    assert len(components) == len(bill["components"])
    depends = {one["ref"]: one["dependsOn"] for one in bill["dependencies"]}
    assert set().union(*depends.values()) <= set(components)
    for path in bill_path.parent.iterdir():
        if path.name not in (bill_path.name, "SHA256SUMS"):
            assert components[path.name]["hashes"][0]["content"] == hashlib.sha256(path.read_bytes()).hexdigest()
    for line in list_path.read_text(encoding="utf-8").splitlines():
        if not line.startswith("#"):
            name, version, _, licence, *_ = line.split()
            assert components[f"pkg:npm/{name}@{version}"]["licenses"] == [{"license": {"id": licence}}]
    [wheel] = [name for name in components if name.endswith(".whl")]
    linked = {components[ref]["name"] for ref in depends[wheel]}
    assert {"libc6", "libfftw3-double3", "libportaudio2", "libstdc++6"} <= linked, linked


if __name__ == "__main__":
    check(pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]))
