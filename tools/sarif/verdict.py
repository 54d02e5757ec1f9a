#!/usr/bin/python3
"""Prints what is wrong with one SARIF log and exits 1 when anything is an error.

Usage: verdict.py SCHEMA VALIDATOR-OUTPUT LOG

Three sources: the validator's own output log (its errors and warnings); the
SARIF 2.1.0 schema it ships, checked here as well, since the validator says
nothing at all about a log holding a value outside one of the schema's enums
(a "fatal" level, say) and loses that log's other errors with it; and whether
every result names a file, which is what a review tool needs to show it.
"""
import json
import re
import sys

import jsonschema

# The validator's configuration (validation.xml) turns this rule off, so that
# validating never reaches for the network; its notice of that is ours, not news.
OWN_NOTICE = re.compile(r"Rule 'SARIF2006' was explicitly disabled")


def printable(text):
    """The text with control characters escaped: a log's values are input."""
    return re.sub(r"[\x00-\x08\x0b-\x1f\x7f]", lambda m: "\\x%02x" % ord(m.group()), str(text))


def json_path(parts):
    path = ""
    for p in parts:
        path += "[%d]" % p if isinstance(p, int) else ("." if path else "") + str(p)
    return path or "(the log)"


def message_text(message, rule):
    """A validator message, either written out or as a template and arguments."""
    if "text" in message:
        return message["text"]
    template = rule.get("messageStrings", {}).get(message.get("id"), {}).get("text", "")
    args = message.get("arguments", [])
    return re.sub(r"\{(\d+)\}", lambda m: str(args[int(m.group(1))]) if int(m.group(1)) < len(args)
                  else m.group(), template) or json.dumps(message)


def validator_findings(output):
    """(level, where, rule, text) for each of the validator's results and notices."""
    found = []
    for run in output.get("runs", []):
        rules = run.get("tool", {}).get("driver", {}).get("rules", [])
        by_id = {r.get("id"): r for r in rules}
        for res in run.get("results", []):
            index = res.get("ruleIndex", -1)
            rule = rules[index] if 0 <= index < len(rules) else by_id.get(res.get("ruleId"), {})
            region = {}
            for loc in res.get("locations", [])[:1]:
                region = loc.get("physicalLocation", {}).get("region", {})
            where = ":".join(str(region[k]) for k in ("startLine", "startColumn") if k in region)
            found.append((res.get("level", "warning"), where, res.get("ruleId", "?"),
                          message_text(res.get("message", {}), rule)))
        for inv in run.get("invocations", []):
            if inv.get("executionSuccessful") is False:
                found.append(("error", "", "validator", "the validator did not complete its run"))
            for n in inv.get("toolExecutionNotifications", []) + inv.get("toolConfigurationNotifications", []):
                text = n.get("message", {}).get("text", "")
                if not OWN_NOTICE.search(text):
                    found.append((n.get("level", "warning"), "", n.get("descriptor", {}).get("id", "validator"), text))
    return found


def has_file(location, artifacts):
    artifact = location.get("physicalLocation", {}).get("artifactLocation", {})
    if artifact.get("uri"):
        return True
    index = artifact.get("index", -1)
    return 0 <= index < len(artifacts) and bool(artifacts[index].get("location", {}).get("uri"))


def unlocated(log):
    """(where, rule, text) for each result without a location in a file."""
    found = []
    for i, run in enumerate(log["runs"]):
        artifacts = run.get("artifacts", [])
        for j, res in enumerate(run.get("results") or []):
            if not any(has_file(loc, artifacts) for loc in res.get("locations", [])):
                found.append(("runs[%d].results[%d]" % (i, j), "location",
                              "result of rule '%s' names no file: a review tool cannot show it"
                              % res.get("ruleId", res.get("rule", {}).get("id", "?"))))
    return found


def main(schema_path, output_path, log_path):
    with open(output_path, encoding="utf-8") as f:
        findings = validator_findings(json.load(f))
    try:
        with open(log_path, encoding="utf-8-sig") as f:
            log = json.load(f)
    except ValueError as e:
        findings.append(("error", "", "json", "not a JSON document: %s" % e))
    else:
        with open(schema_path, encoding="utf-8-sig") as f:
            schema = jsonschema.Draft202012Validator(json.load(f))
        wrong = sorted(schema.iter_errors(log), key=lambda e: list(map(str, e.absolute_path)))
        findings += [("error", "", "schema", "%s: %s" % (json_path(e.absolute_path), e.message)) for e in wrong]
        if not wrong:
            findings += [("error", "", rule, "%s: %s" % (where, text)) for where, rule, text in unlocated(log)]

    errors = 0
    for level, where, rule, text in findings:
        errors += level == "error"
        print(printable("%s:%s %s %s: %s" % (log_path, where + ":" if where else "", level, rule, text)))
    warnings = sum(level == "warning" for level, *_ in findings)
    print(printable("%s: %s, %d error%s, %d warning%s" % (
        log_path, "invalid" if errors else "valid", errors, "" if errors == 1 else "s",
        warnings, "" if warnings == 1 else "s")), file=sys.stderr)
    return 1 if errors else 0


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit(__doc__.split("\n\n")[1])
    sys.exit(main(*sys.argv[1:]))
