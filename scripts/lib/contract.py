# SPDX-License-Identifier: Apache-2.0
"""The contract between the program and whoever calls it, made of the sources and of doc/contract.toml."""

import re
import tomllib
from dataclasses import dataclass

_STRINGS = r'((?:"(?:[^"\\]|\\.)*"\s*)+)'
_SUCCESS, _FIRST_ERROR, _FAILURE = "kExitSuccess", "kExitUsage", "kExitFailure"


class ContractError(Exception):
    """The sources and the causes do not fit together."""


# ---- What the sources tell ----


@dataclass(frozen=True)
class Action:
    """An action option. `wrappers` has the functions of its class that put a tag around others (name -> tag); one that
    `swallows` tells errors in the log alone."""

    option: str
    number: int
    keeps_status: bool
    swallows: bool
    wrappers: dict


class Sources:
    """What the program's sources say of actions, tags and exit statuses."""

    def __init__(self, root):
        self._texts = {file.name: file.read_text(encoding="utf-8") for file in sorted((root / "src").rglob("*"))
                       if file.suffix in (".h", ".cpp")}
        self._all = "\n".join(self._texts.values())
        self.tags = self._read_tags()
        self.statuses = {name: int(number) for name, number in
                         re.findall(r"^ +(kExit\w+) = (\d+),", self._texts["exit_status.h"], re.MULTILINE)}
        self.status_of_tags = dict(re.findall(r"\{&isKind<&(\w+)>, (kExit\w+)\}", self._texts["driver.cpp"]))
        self.actions = {action.option: action for action in self._read_actions()}

    def _read_tags(self):
        """Code of each kind of error -> the format of its message, empty where the sources compose it."""
        tags = {name: _text(literals) for name, literals in
                re.findall(rf"^KORVA_ERROR_TAG\(\s*(\w+),\s*{_STRINGS}\)", self._all, re.MULTILINE)}
        # Those of a class give code and format by themselves.
        tags |= {code: _text(literals) for code, literals in
                 re.findall(rf'\breturn \{{"([\w:]+)",\s*{_STRINGS}\}};', self._all)}
        return tags | {code: "" for code in re.findall(r'\bExTraceable \w+\([^;]*, "(\w+)"\);', self._all)}

    def _read_actions(self):
        numbers = dict(re.findall(r"^ +(k\w+) = (-?\d+),", self._texts["options.h"], re.MULTILINE))
        factory = self._texts["action_factory.cpp"]
        for name, constant in re.findall(r'\{"([\w-]+)", no_argument, nullptr, (k\w+)\}', self._texts["options.cpp"]):
            if constant not in numbers:
                continue
            made = re.search(rf"case {constant}:[^;]*?make_unique<(\w+)>", factory, re.DOTALL)
            yield self._action(f"--{name}", int(numbers[constant]), made[1] if made else None)

    def _action(self, option, number, class_name):
        if class_name is None:
            return Action(option, number, False, False, {})
        keeps = re.search(rf"\b{class_name}\([^)]*\) : Action\((true|false)\)", self._all)[1] == "true"
        bodies = dict(re.findall(rf"^[\w:<>&* ]+ {class_name}::(\w+)\((.*?)^\}}$", self._all, re.MULTILINE | re.DOTALL))
        wrappers = {function: tag for function, body in bodies.items()
                    for tag in re.findall(r"KORVA_EXC_CAUSED_BY\((\w+),", body)}
        execute = bodies["execute"]
        swallows = "catch (const ExTraceable&" in execute and "execute" not in wrappers and "throw" not in execute
        return Action(option, number, keeps, swallows, wrappers)


def _text(literals):
    return "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', literals)).replace(r"\n", "\n").replace(r"\"", '"')


# ---- The rows ----


class Contract:
    """The table. `data` is all of it as doc/contract.json has it."""

    def __init__(self, root):
        self.sources = Sources(root)
        self._said = tomllib.loads((root / "doc" / "contract.toml").read_text(encoding="utf-8"))
        self.groups = self._said["groups"]
        self._check_tags()
        rows = self._rows()
        self._check_statuses(rows)
        self.data = {
            "about": self._said["about"],
            "notes": self._said["notes"],
            "retry": self._said["retry"],
            "statuses": self._said["statuses"],
            "actions": [{"action": action.option, "number": action.number, "result": self._result_name(action.option),
                         "keeps_status": action.keeps_status} for action in self.sources.actions.values()],
            "rows": rows,
            "tags": [{"tag": tag, "message": message, "unseen": self._said["unseen"].get(tag)}
                     for tag, message in sorted(self.sources.tags.items())],
        }

    def _rows(self):
        rows = []
        for option in self.sources.actions:
            for cause in self._said["cause"]:
                if option in self._options(cause):
                    rows += [row for row in self._rows_of(option, cause) if row not in rows]
        return rows

    def _options(self, cause):
        options = cause["actions"]
        options = self.groups[options] if isinstance(options, str) else options
        unknown = set(options) - set(self.sources.actions)
        if unknown:
            raise ContractError(f"{cause['id']}: no such action: {', '.join(sorted(unknown))}")
        return options

    def _rows_of(self, option, cause):
        if cause["retry"] not in self._said["retry"]:
            raise ContractError(f"{cause['id']}: no such advice: {cause['retry']}")
        for where in cause["where"]:
            if where != "files" or "fetchAll" in self.sources.actions[option].wrappers:
                for chain in cause.get("tags", [""]):
                    yield self._row(option, cause, where, [tag for tag in chain.split(" > ") if tag])

    def _row(self, option, cause, where, chain):
        action = self.sources.actions[option]
        wrapper = action.wrappers.get({"run": "execute", "files": "fetchAll"}.get(where))
        chain = ([wrapper] if wrapper and chain else []) + chain
        is_success = where == "success" or (where == "run" and action.swallows)
        if where in ("start", "end", "foreign"):
            status = _FIRST_ERROR
        elif is_success:
            status = _SUCCESS
        else:
            status = self.sources.status_of_tags.get(chain[0], _FAILURE)
        document = self._result_name(option) if where in ("setup", "run", "files", "foreign", "success") else None
        return {"action": option, "cause": cause["id"], "status": self.sources.statuses[status],
                "outer": None if is_success or not chain else chain[0],
                "innermost": None if is_success or not chain else chain[-1],
                "logged": chain[-1] if is_success and chain else None,
                "document": document, "retry": cause["retry"], "sentence": cause["sentence"]}

    @staticmethod
    def _result_name(option):
        if option == "--help":
            return None
        return "transfer.result" if option == "--get-content" else "migration.result"

    # ---- Whether all is there ----

    def _check_tags(self):
        used = {tag for cause in self._said["cause"] for chain in cause.get("tags", []) for tag in chain.split(" > ")}
        used |= {tag for action in self.sources.actions.values() for tag in action.wrappers.values()}
        unseen = set(self._said["unseen"])
        known = set(self.sources.tags)
        for problem, tags in (("has no row", known - used - unseen), ("is not in the sources", (used | unseen) - known),
                              ("has a row, so it is not unseen", used & unseen),
                              ("has an exit status, but no row", set(self.sources.status_of_tags) - used)):
            if tags:
                raise ContractError("\n".join(f"doc/contract.toml: {tag} {problem}" for tag in sorted(tags)))

    def _check_statuses(self, rows):
        numbers = set(self.sources.statuses.values())
        for problem, missing in (("has no sentence", numbers - set(map(int, self._said["statuses"]))),
                                 ("has no row", numbers - {row["status"] for row in rows}),
                                 ("is not in the sources", set(map(int, self._said["statuses"])) - numbers)):
            if missing:
                raise ContractError("\n".join(f"doc/contract.toml: status {number} {problem}" for number in
                                              sorted(missing)))

    # ---- Tables for people ----

    def causes(self):
        """For each cause, told by its tag, what it ends each action with: (tag, {action: [(status, outer)]}, retry,
        sentence), in the order of the file."""
        found = {}
        for cause in self._said["cause"]:
            for row in self.data["rows"]:
                if row["cause"] == cause["id"]:
                    tag = row["innermost"] or row["logged"] or ""
                    ends = found.setdefault((cause["id"], tag), (tag, {}, row["retry"], row["sentence"]))[1]
                    end = (row["status"], row["outer"] if row["outer"] != tag else None)
                    ends.setdefault(row["action"], [])
                    if end not in ends[row["action"]]:
                        ends[row["action"]].append(end)
        return list(found.values())
