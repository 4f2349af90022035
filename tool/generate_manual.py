#!/usr/bin/env python3
"""Makes the manual pages and the shell completions of `tarn` out of its own table of options and its manual.

    tarn options --json | generate_manual.py tool.md FOLDER

They go to FOLDER/man/man1, FOLDER/bash-completion/completions, FOLDER/zsh/vendor-completions and
FOLDER/fish/vendor_completions.d, as below /usr/share.
"""
import gzip
import json
import re
import sys
from pathlib import Path


def sections(manual: str) -> dict:
    """The sections of tool.md under their titles: {"tarn shape": "Reshapes a terrain ..."}."""
    parts = re.split(r"^## (.*)$", manual, flags=re.M)
    return dict(zip(parts[1::2], (text.strip() for text in parts[2::2])))


def is_file(option: dict) -> bool:
    return option["role"] == "output" or option["type"] in ("grid", "picture", "model", "points", "file")


def words_of(option: dict, commands: list) -> list:
    """What may stand as the value of an option, if that is a list of words."""
    return {
        "choice": option.get("choices", []),
        "device": ["cpu"],
        "command": [command["name"] for command in commands],
    }.get(option["type"], [])


def positionals(command: dict) -> list:
    return [option for option in command["options"] if not option["option"]]


def named(command: dict) -> list:
    return [option for option in command["options"] if option["option"]]


def flag_names(table: dict) -> list:
    return [name for flag in table["common_flags"] for name in flag["names"].split(",")]


# Manual pages


def roff(text: str) -> str:
    """A paragraph of Markdown as roff."""
    text = text.replace("\\", "\\e").replace("-", "\\-")
    text = re.sub(r"!?\[([^]]*)\]\([^)]*\)", r"\1", text)
    text = re.sub(r"`([^`]*)`", r"\\fB\1\\fP", text)
    text = re.sub(r"\*\*([^*]*)\*\*", r"\\fB\1\\fP", text)
    return re.sub(r"^([.'])", r"\\&\1", text, flags=re.M)


def roff_of_section(markdown: str) -> str:
    """A section of the manual without its pictures and its table of options, which the page lists itself."""
    parts = []
    for block in re.split(r"\n\n+", markdown):
        if block.startswith("```"):
            code = "\n".join(block.splitlines()[1:-1]).replace("\\", "\\e").replace("-", "\\-")
            parts.append(f".PP\n.RS 4\n.nf\n{code}\n.fi\n.RE")
        elif block.startswith("|"):
            rows = [[cell.strip() for cell in row.strip("|").split("|")] for row in block.splitlines()]
            if rows[0][0] != "Option":
                parts += [f".TP\n{roff(row[0])}\n{roff(' '.join(row[1:]))}" for row in rows[2:]]
        elif not block.startswith("!["):
            parts.append(".PP\n" + roff(block))
    return "\n".join(parts)


def limits(option: dict) -> str:
    text = []
    if option["type"] != "flag" and option.get("default", option.get("default_text")) is not None:
        value = option.get("default", option.get("default_text"))
        values = value if isinstance(value, list) else [value]
        text.append("Default: " + " ".join(v if isinstance(v, str) else f"{v:.10g}" for v in values))
    if "members" in option:
        text.append("One of " + ", ".join(map(str, option["members"])))
    elif "exclusive_minimum" in option:
        text.append("Above 0" if option["exclusive_minimum"] == 0 else f"Above {option['exclusive_minimum']}")
    elif "minimum" in option:
        text.append(f"From {option['minimum']:g} to {option['maximum']:.10g}")
    if "choices" in option:
        text.append("One of " + ", ".join(option["choices"]))
    for key, words in (("needs", "Goes with"), ("excludes", "Not with")):
        if key in option:
            text.append(words + " " + ", ".join(option[key]))
    return "".join(f" {part}." for part in text)


def man_options(options: list) -> str:
    text = ""
    for option in options:
        name = f"\\fB{roff(option['option'])}\\fP " if option["option"] else ""
        value = roff(option.get("placeholder", "")) if option["option"] else option["name"].upper()
        text += f".TP\n{name}" + (f"\\fI{value}\\fP" if value else "") + "\n"
        required = " Required." if option["option"] and option["required"] else ""
        text += roff(option["help"].rstrip(".") + "." + required + limits(option)) + "\n"
    return text


def man_page(name: str, version: str, summary: str, usage: str, parts: list) -> str:
    head = f'.TH {name.upper().replace("-", chr(92) + "-")} 1 "" "tarn {version}" "User Commands"\n'
    head += f".SH NAME\n{roff(name)} \\- {roff(summary)}\n.SH SYNOPSIS\n{usage}\n"
    return head + "".join(f".SH {title}\n{text.strip()}\n" for title, text in parts if text.strip())


def man_flags(table: dict) -> str:
    return "".join(
        f".TP\n\\fB{roff(flag['names'].replace(',', ', '))}\\fP\n{roff(flag['help'])}.\n" for flag in table["common_flags"]
    )


def command_page(command: dict, table: dict, manual: dict) -> str:
    usage = f"\\fBtarn {command['name']}\\fP"
    for option in positionals(command):
        name = option["name"].upper()
        usage += f" \\fI{name}\\fP" if option["required"] else f" [\\fI{name}\\fP]"
    for option in named(command):
        if option["required"]:
            usage += f" \\fB{roff(option['option'])}\\fP \\fI{roff(option['placeholder'])}\\fP"
    examples = "".join(f".PP\n{roff(e['text'])}:\n.PP\n.RS 4\n.nf\n{roff(e['line'])}\n.fi\n.RE\n" for e in command["examples"])
    parts = [
        ("DESCRIPTION", roff_of_section(manual.get("tarn " + command["name"], command["summary"] + "."))),
        ("ARGUMENTS", man_options(positionals(command))),
        ("OPTIONS", man_options([o for o in named(command) if not o["advanced"]]) + man_flags(table)),
        ("ADVANCED OPTIONS", man_options([o for o in named(command) if o["advanced"]])),
        ("EXAMPLES", examples),
        ("EXIT STATUS", "See \\fBtarn\\fP(1)."),
        ("SEE ALSO", "\\fBtarn\\fP(1)"),
    ]
    name = "tarn-" + command["name"]
    return man_page(name, table["version"], command["summary"], usage + " [\\fIoptions\\fP]", parts)


def main_page(table: dict, manual: dict) -> str:
    commands = "".join(f".TP\n\\fBtarn\\-{c['name']}\\fP(1)\n{roff(c['summary'])}.\n" for c in table["commands"])
    parts = [
        ("DESCRIPTION", "A command\\-line host of Tarn.oneAPI: it reads height grids, has the library work on them and "
                        "writes the results.\n" + commands),
        ("OPTIONS", "With every command:\n" + man_flags(table)),
        ("GRIDS", roff_of_section(manual["Grids"])),
        ("FILES", roff_of_section(manual["Files"])),
        ("EXIT STATUS", roff_of_section(manual["Exit codes"])),
    ]
    usage = "\\fBtarn\\fP \\fICOMMAND\\fP ... [\\fIoptions\\fP]"
    return man_page("tarn", table["version"], "shape terrain with Tarn.oneAPI", usage, parts)


# Completions


def bash(table: dict) -> str:
    commands = table["commands"]
    values, numbers, options, arguments = "", [], "", ""
    for command in commands:
        names = [o["option"] for o in named(command)] + flag_names(table)
        options += f"        {command['name']}) words='{' '.join(names)}' ;;\n"
        for option in named(command):
            place = f'"{command["name"]} {option["option"]}"'
            if words := words_of(option, commands):
                values += f"        {place}) words='{' '.join(words)}' ;;\n"
            elif option["type"] != "flag" and not is_file(option):
                numbers.append(place)
        for option in positionals(command):
            if words := words_of(option, commands):
                arguments += f"        {command['name']}) words='{' '.join(words)}' ;;\n"
    return f"""# Completion of `tarn` for bash. Generated.
_tarn() {{
    local current=${{COMP_WORDS[COMP_CWORD]}} previous=${{COMP_WORDS[COMP_CWORD-1]}} command= word words=
    if [[ $current == = ]]; then
        current=
    elif [[ $previous == = ]]; then
        previous=${{COMP_WORDS[COMP_CWORD-2]}}
    fi
    for word in "${{COMP_WORDS[@]:1:COMP_CWORD-1}}"; do
        [[ $word == -* ]] || {{ command=$word; break; }}
    done
    COMPREPLY=()
    case "$command $previous" in
{values}        {'|'.join(numbers)}) compopt +o default; return ;;
    esac
    if [[ -z $words && $current == -* ]]; then
        case $command in
{options}        *) words='{' '.join(flag_names(table))}' ;;
        esac
    elif [[ -z $words ]]; then
        case $command in
        '') words='{' '.join(c['name'] for c in commands)}' ;;
{arguments}        esac
    fi
    if [[ -n $words ]]; then
        compopt +o default
        COMPREPLY=($(compgen -W "$words" -- "$current"))
    fi
}}
complete -o default -F _tarn tarn
"""


def zsh_text(text: str) -> str:
    return re.sub(r"([\[\]:])", r"\\\1", text).replace("'", "'\\''")


def zsh(table: dict) -> str:
    commands = table["commands"]

    def value(option: dict) -> str:
        if option["type"] == "flag":
            return ""
        words = words_of(option, commands)
        action = "(" + " ".join(words) + ")" if words else "_files" if is_file(option) else " "
        return f":{zsh_text(option.get('placeholder', option['name']))}:{action}"

    flags = " ".join(f"'{name}[{zsh_text(flag['help'])}]'" for flag in table["common_flags"]
                     for name in flag["names"].split(","))
    cases = ""
    for command in commands:
        lines = [f"'{n}{value(option)}'" for n, option in enumerate(positionals(command), 1)]
        lines += [f"'{'*' if o['count'] == 0 else ''}{o['option']}[{zsh_text(o['help'])}]{value(o)}'" for o in named(command)]
        cases += f"        {command['name']})\n            _arguments $flags \\\n                " + (
            " \\\n                ".join(lines)) + "\n            ;;\n"
    names = "\n        ".join(f"'{c['name']}:{zsh_text(c['summary'])}'" for c in commands)
    return f"""#compdef tarn
# Completion of `tarn` for zsh. Generated.
_tarn() {{
    local curcontext=$curcontext state line
    local -a flags=({flags})
    local -a commands=(
        {names}
    )
    _arguments -C $flags '1: :->command' '*:: :->arguments'
    case $state in
    command) _describe command commands ;;
    arguments)
        case $words[1] in
{cases}        esac
        ;;
    esac
}}
_tarn "$@"
"""


def fish_text(text: str) -> str:
    return "'" + text.replace("\\", "\\\\").replace("'", "\\'") + "'"


def fish(table: dict) -> str:
    commands = table["commands"]
    lines = ["# Completion of `tarn` for fish. Generated.", "complete -c tarn -n __fish_use_subcommand -f"]
    for flag in table["common_flags"]:
        names = flag["names"].split(",")
        short = " -s " + names[0][1:] if len(names) == 2 else ""
        lines.append(f"complete -c tarn{short} -l {names[-1][2:]} -d {fish_text(flag['help'])}")
    for command in commands:
        lines.append(f"complete -c tarn -n __fish_use_subcommand -a {command['name']} -d {fish_text(command['summary'])}")
        seen = f"complete -c tarn -n '__fish_seen_subcommand_from {command['name']}'"
        for option in command["options"]:
            words = words_of(option, commands)
            choice = " -xa " + fish_text(" ".join(words)) if words else ""
            if not option["option"]:
                if words:
                    lines.append(seen + choice)
                continue
            kind = choice or ("" if option["type"] == "flag" else " -r" if is_file(option) else " -x")
            lines.append(f"{seen} -l {option['option'][2:]}{kind} -d {fish_text(option['help'])}")
    return "\n".join(lines) + "\n"


def main(manual_path: str, folder: str) -> None:
    table = json.load(sys.stdin)
    manual = sections(Path(manual_path).read_text(encoding="utf-8"))
    files = {
        "man/man1/tarn.1": main_page(table, manual),
        "bash-completion/completions/tarn": bash(table),
        "zsh/vendor-completions/_tarn": zsh(table),
        "fish/vendor_completions.d/tarn.fish": fish(table),
    }
    for command in table["commands"]:
        files[f"man/man1/tarn-{command['name']}.1"] = command_page(command, table, manual)
    for name, text in files.items():
        path = Path(folder, name)
        path.parent.mkdir(parents=True, exist_ok=True)
        # Manual pages are compressed, as distributions have them, without a date, so that builds repeat.
        content = text.encode()
        if name.startswith("man/"):
            path = path.with_name(path.name + ".gz")
            content = gzip.compress(content, mtime=0)
        path.write_bytes(content)


if __name__ == "__main__":
    main(*sys.argv[1:])
