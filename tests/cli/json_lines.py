"""JSON lines of the tool, each checked against its schema in docs/schema."""
import json
import os

import jsonschema

FOLDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "docs", "schema")


def load():
    validators = {}
    for name in os.listdir(FOLDER):
        with open(os.path.join(FOLDER, name), encoding="utf-8") as file:
            schema = json.load(file)
        jsonschema.Draft202012Validator.check_schema(schema)
        validators[schema["title"]] = jsonschema.Draft202012Validator(schema)
    return validators


VALIDATORS = load()


def parse(output):
    """The objects of an output. A line without a schema of its own follows the header in front of it."""
    objects = []
    name = None
    for line in output.splitlines():
        value = json.loads(line)
        name = value.get("schema", name)
        VALIDATORS[name].validate(value)
        objects.append(value)
    return objects
