"""JSON lines of the tool, each checked against its schema in docs/schema."""
import json
import os

import jsonschema

FOLDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "docs", "schema")


def load():
    validators = {}
    for name in os.listdir(FOLDER):
        if not name.endswith(".json"):
            continue
        with open(os.path.join(FOLDER, name), encoding="utf-8") as file:
            schema = json.load(file)
        jsonschema.Draft202012Validator.check_schema(schema)
        assert schema["title"].replace(" ", "-") == "kab." + name[:-len(".json")], name
        validators[schema["title"]] = jsonschema.Draft202012Validator(schema)
    return validators


VALIDATORS = load()


def parse(output):
    """The objects of an output. A line without a schema of its own is of the header's in front of it, or of that behind
    it where nothing is in front."""
    objects = [json.loads(line) for line in output.splitlines()]
    names = [value["schema"] for value in objects if "schema" in value]
    name = names[0] if names else None
    for value in objects:
        name = value.get("schema", name)
        VALIDATORS[name].validate(value)
    return objects
