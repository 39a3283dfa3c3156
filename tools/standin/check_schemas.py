#!/usr/bin/env python3
"""Checks JSON against Atlassian's published schemas for the Jira calls Hourloom makes.

  check_schemas.py responses --standin <hourloom-standin> --schemas <openapi.json>
      Starts the stand-in, makes it answer every kind of worklog list, worklog create, myself and issue
      request, and validates each answer against the operation's response schema.
  check_schemas.py requests --schemas <openapi.json> <bodies.json>
      Validates worklog bodies a client sent (a JSON array of objects) against the create operation's
      request schema; read-only fields count as errors, since Jira ignores or rejects them on create.

Exit status 0 when everything validates, 1 with a report on stderr otherwise, 2 on a usage or set-up error.
"""

import argparse
import json
import ssl
import subprocess
import sys
import urllib.error
import urllib.request

try:
    import jsonschema
except ImportError:
    sys.stderr.write("check_schemas.py needs python3-jsonschema\n")
    sys.exit(2)

WORKLOGS = "/rest/api/3/issue/{issueIdOrKey}/worklog"
ISSUE = "/rest/api/3/issue/{issueIdOrKey}"
MYSELF = "/rest/api/3/myself"


class Schemas:
    def __init__(self, path):
        with open(path, encoding="utf-8") as handle:
            self.document = json.load(handle)
        self.components = self.document["components"]

    def _validator(self, schema):
        # OpenAPI 3.0 schemas are JSON Schema (draft 4 family) whose $refs point into components/schemas.
        root = dict(schema)
        root["components"] = self.components
        return jsonschema.Draft4Validator(root)

    def response(self, path, method, status):
        operation = self.document["paths"][path][method]
        return self._validator(operation["responses"][str(status)]["content"]["application/json"]["schema"])

    def request(self, path, method):
        operation = self.document["paths"][path][method]
        return self._validator(operation["requestBody"]["content"]["application/json"]["schema"])

    def read_only_fields(self, path, method):
        schema = self.document["paths"][path][method]["requestBody"]["content"]["application/json"]["schema"]
        name = schema["$ref"].rsplit("/", 1)[1]
        properties = self.components["schemas"][name]["properties"]
        return sorted(key for key, value in properties.items() if value.get("readOnly"))


def problems(validator, value):
    return ["%s: %s" % ("/".join(str(p) for p in error.absolute_path) or "(root)", error.message)
            for error in validator.iter_errors(value)]


class Standin:
    def __init__(self, executable):
        self.process = subprocess.Popen(
            [executable, "--seed-demo", "--page-size", "2", "--user-time-zone", "Asia/Kolkata"],
            stdout=subprocess.PIPE, text=True)
        values = {}
        for _ in range(3):
            line = self.process.stdout.readline()
            if not line:
                break
            key, _, value = line.strip().partition(": ")
            values[key] = value
        if not {"origin", "ca-file", "token"} <= values.keys():
            self.stop()
            raise RuntimeError("the stand-in did not start")
        self.origin = values["origin"]
        self.token = values["token"]
        self.context = ssl.create_default_context(cafile=values["ca-file"])

    def stop(self):
        self.process.terminate()
        self.process.wait(timeout=20)

    def call(self, method, path, body=None, token=True):
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(self.origin + path, data=data, method=method)
        request.add_header("Accept", "application/json")
        if data is not None:
            request.add_header("Content-Type", "application/json")
        if token:
            request.add_header("Authorization", "Bearer " + self.token)
        try:
            with urllib.request.urlopen(request, context=self.context, timeout=20) as answer:
                return answer.status, json.loads(answer.read())
        except urllib.error.HTTPError as error:
            return error.code, error.read().decode(errors="replace")


def check_responses(arguments):
    schemas = Schemas(arguments.schemas)
    list_schema = schemas.response(WORKLOGS, "get", 200)
    create_schema = schemas.response(WORKLOGS, "post", 201)
    myself_schema = schemas.response(MYSELF, "get", 200)
    issue_schema = schemas.response(ISSUE, "get", 200)

    # A validator that accepts anything would make every check below pass; make sure these do not.
    assert problems(list_schema, {"total": "1", "worklogs": [{"id": 20001}]}), "worklog list schema accepts nonsense"
    assert problems(myself_schema, {"accountId": "x", "favouriteColour": "red"}), "myself schema accepts nonsense"

    standin = Standin(arguments.standin)
    failures = []
    checked = 0

    def expect(validator, what, status, answer, expected_status):
        nonlocal checked
        if status != expected_status:
            failures.append("%s: HTTP %s instead of %s: %s" % (what, status, expected_status, answer))
            return
        checked += 1
        failures.extend("%s: %s" % (what, problem) for problem in problems(validator, answer))

    try:
        cloud = standin.call("GET", "/oauth/token/accessible-resources")[1][0]["id"]
        base = "/ex/jira/%s/rest/api/3" % cloud
        comment = {"type": "doc", "version": 1, "content": [
            {"type": "paragraph", "content": [{"type": "text", "text": "Review\nhourloom:abc"}]}]}
        bodies = [
            {"started": "2026-03-02T09:00:00.000+0100", "timeSpentSeconds": 3600, "comment": comment,
             "properties": [{"key": "hourloom", "value": {"marker": "abc", "sources": {"k": 3600}}}]},
            {"started": "2026-03-29T01:59:59.999+0100", "timeSpent": "1h 30m"},
            {"started": "2026-10-25T02:30:00.000+0200", "timeSpentSeconds": 60},
        ]
        for index, body in enumerate(bodies):
            expand = "&expand=properties" if index == 0 else ""
            status, answer = standin.call(
                "POST", base + "/issue/ED-1/worklog?notifyUsers=false&adjustEstimate=auto" + expand, body)
            expect(create_schema, "create %d" % index, status, answer, 201)
        for query in ("", "?expand=properties", "?startAt=2&maxResults=1000&expand=properties",
                      "?startAt=9", "?startedAfter=1772438400000&startedBefore=1774742400000"):
            status, answer = standin.call("GET", base + "/issue/ED-1/worklog" + query)
            expect(list_schema, "worklogs" + query, status, answer, 200)
        status, answer = standin.call("GET", base + "/myself")
        expect(myself_schema, "myself", status, answer, 200)
        for key, query in (("ED-1", "?fields=summary,timetracking"), ("ed-2", "?fields=summary,timetracking"),
                           ("ED-3", "")):
            status, answer = standin.call("GET", base + "/issue/" + key + query)
            expect(issue_schema, "issue " + key + query, status, answer, 200)
    finally:
        standin.stop()

    if failures:
        sys.stderr.write("\n".join(failures) + "\n")
        return 1
    print("%d stand-in answers validate against the published schemas" % checked)
    return 0


def check_requests(arguments):
    schemas = Schemas(arguments.schemas)
    validator = schemas.request(WORKLOGS, "post")
    read_only = schemas.read_only_fields(WORKLOGS, "post")
    with open(arguments.bodies, encoding="utf-8") as handle:
        bodies = json.load(handle)
    if not isinstance(bodies, list) or not bodies:
        sys.stderr.write("expected a non-empty JSON array of request bodies\n")
        return 2
    failures = []
    for index, body in enumerate(bodies):
        failures.extend("body %d: %s" % (index, problem) for problem in problems(validator, body))
        if isinstance(body, dict):
            failures.extend("body %d: read-only field %r sent" % (index, key) for key in read_only if key in body)
    if failures:
        sys.stderr.write("\n".join(failures) + "\n")
        return 1
    print("%d worklog request bodies validate against the published schema" % len(bodies))
    return 0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    modes = parser.add_subparsers(dest="mode", required=True)
    responses = modes.add_parser("responses")
    responses.add_argument("--standin", required=True)
    responses.add_argument("--schemas", required=True)
    requests = modes.add_parser("requests")
    requests.add_argument("--schemas", required=True)
    requests.add_argument("bodies")
    arguments = parser.parse_args()
    return check_responses(arguments) if arguments.mode == "responses" else check_requests(arguments)


if __name__ == "__main__":
    sys.exit(main())
