// Writes kvctl's completion for bash, zsh or fish (the argument) from its table of commands
// and options, at build time, so that the three never drift from the parser; and checks that
// the manual page names every command and option of the table.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "cli.h"

namespace {

using kvctl::Arg;

// `text` in single quotes for the shell; fish escapes a quote inside them with a backslash.
std::string quoted(const std::string& text, bool fish) {
    std::string out = "'";
    for (const char c : text) {
        out += c == '\'' ? (fish ? "\\'" : "'\\''") : std::string(1, c);
        if (fish && c == '\\') {
            out += '\\';
        }
    }
    return out + "'";
}

// The option's short form, or "" when it has none or an earlier option has the same letter
// (another command's meaning of it).
std::string shortForm(const kvctl::Option& o) {
    if (o.shortName == '\0') {
        return "";
    }
    for (const kvctl::Option& earlier : kvctl::kOptions) {
        if (&earlier == &o) {
            break;
        }
        if (earlier.shortName == o.shortName) {
            return "";
        }
    }
    return std::string("-") + o.shortName;
}

std::string commandNames(const char* separator) {
    std::string out;
    for (const kvctl::Command& c : kvctl::kCommands) {
        out += (out.empty() ? "" : separator) + std::string(c.name);
    }
    return out;
}

std::string bash() {
    std::string files, bare, words;  // cases for a required argument, an optional one
    for (const kvctl::Option& o : kvctl::kOptions) {
        const std::string s = shortForm(o);
        const std::string forms = (s.empty() ? "" : s + " | ") + "--" + o.longName;
        words += (words.empty() ? "" : " ") + (s.empty() ? "" : s + " ") + "--" + o.longName;
        std::string action = strcmp(o.values, "@file") == 0 ? "_filedir"
                             : *o.values != '\0'            ? "COMPREPLY=($(compgen -W '" +
                                                       std::string(o.values) + "' -- \"$cur\"))"
                                                 : ":";
        if (o.arg == Arg::Required) {
            files.append("        ").append(forms).append(")\n            ").append(action);
            files += "\n            return\n            ;;\n";
        } else if (o.arg == Arg::Optional) {
            bare.append("        --").append(o.longName).append(")\n            if [[ $split ]]");
            bare.append("; then\n                ").append(action);
            bare += "\n                return\n            fi\n            ;;\n";
        }
    }
    return "# bash completion for kvctl(8), made from kvctl's list of commands and options\n"
           "_kvctl() {\n"
           "    local cur prev words cword split\n"
           "    _init_completion -s || return\n"
           "    case $prev in\n" +
           files + bare +
           "    esac\n"
           "    if [[ $cur == -* ]]; then\n"
           "        COMPREPLY=($(compgen -W '" +
           words +
           "' -- \"$cur\"))\n"
           "        return\n"
           "    fi\n"
           "    local i\n"
           "    for ((i = 1; i < cword; i++)); do\n"
           "        case ${words[i]} in\n"
           "            " +
           commandNames(" | ") +
           ") return ;;\n"
           "        esac\n"
           "    done\n"
           "    COMPREPLY=($(compgen -W '" +
           commandNames(" ") +
           "' -- \"$cur\"))\n"
           "} && complete -F _kvctl kvctl\n";
}

// zsh's _arguments wants ':' escaped in the choices and ']' in the descriptions.
std::string zshEscape(const std::string& text, char special) {
    std::string out;
    for (const char c : text) {
        out += c == special ? std::string("\\") + c : std::string(1, c);
    }
    return out;
}

std::string zsh() {
    std::string out =
        "#compdef kvctl\n"
        "# zsh completion for kvctl(8), made from kvctl's list of commands and options\n"
        "_arguments -s -S \\\n";
    for (const kvctl::Option& o : kvctl::kOptions) {
        const std::string s = shortForm(o);
        const std::string l = std::string("--") + o.longName;
        // --help and --version end the run: nothing else goes with them.
        const bool exits = o.arg == Arg::None && strchr("hV", o.shortName) != nullptr;
        std::string exclude = "(- *)";
        if (!exits) {
            exclude = "(";
            exclude.append(s.empty() ? "" : s + " ").append(l).append(")");
        }
        // The argument: in the next word or the same (+, =), or only in the same (-, =-).
        const char* shortMark = o.arg == Arg::Required ? "+" : o.arg == Arg::Optional ? "-" : "";
        const char* longMark = o.arg == Arg::Required ? "=" : o.arg == Arg::Optional ? "=-" : "";
        std::string action;
        if (o.arg != Arg::None) {
            action = std::string(o.arg == Arg::Optional ? "::" : ":") + o.argName + ":" +
                     (strcmp(o.values, "@file") == 0 ? "_files"
                      : *o.values != '\0'            ? "(" + std::string(o.values) + ")"
                                                     : " ");
        }
        const std::string spec = "[" + zshEscape(o.help, ']') + "]" + action;
        out.append("  ").append(quoted(exclude, false));
        if (s.empty()) {
            out.append(l).append(longMark);
        } else {
            out.append("{").append(s).append(shortMark).append(",").append(l).append(longMark);
            out.append("}");
        }
        out.append(quoted(spec, false));
        out += " \\\n";
    }
    std::string choices;
    for (const kvctl::Command& c : kvctl::kCommands) {
        choices += std::string(choices.empty() ? "" : " ") + c.name + "\\:\"" +
                   zshEscape(c.help, ':') + "\"";
    }
    return out + "  " + quoted("1:command:((" + choices + "))", false) + "\n";
}

std::string fish() {
    std::string out =
        "# fish completion for kvctl(8), made from kvctl's list of commands and options\n"
        "complete -c kvctl -f\n";
    for (const kvctl::Command& c : kvctl::kCommands) {
        out += "complete -c kvctl -n " +
               quoted("not __fish_seen_subcommand_from " + commandNames(" "), true) + " -a " +
               c.name + " -d " + quoted(c.help, true) + "\n";
    }
    for (const kvctl::Option& o : kvctl::kOptions) {
        const std::string s = shortForm(o);
        out += "complete -c kvctl" + (s.empty() ? "" : " -s " + s.substr(1)) + " -l " + o.longName;
        if (o.arg == Arg::Required) {
            out += strcmp(o.values, "@file") == 0 ? " -r -F" : " -x";
        }
        if (o.arg == Arg::Required && *o.values != '\0' && *o.values != '@') {
            out += " -a " + quoted(o.values, true);
        }
        out += " -d " + quoted(o.help, true) + "\n";
    }
    return out;
}

// The names of the table that the manual page lacks: each command as the tag of its
// paragraph, each long option in roff's spelling; one a line.
std::string manMissing(const char* path) {
    std::ifstream in(path);
    const std::string page((std::istreambuf_iterator<char>(in)), {});
    std::string missing;
    for (const kvctl::Command& c : kvctl::kCommands) {
        if (page.find(".TP\n.B " + std::string(c.name) + "\n") == std::string::npos) {
            missing += std::string(c.name) + "\n";
        }
    }
    for (const kvctl::Option& o : kvctl::kOptions) {
        std::string roff = "\\-\\-";
        for (const char* p = o.longName; *p != '\0'; ++p) {
            roff += *p == '-' ? std::string("\\-") : std::string(1, *p);
        }
        if (page.find(roff) == std::string::npos) {
            missing += std::string("--") + o.longName + "\n";
        }
    }
    return in ? missing : std::string("cannot read ") + path + "\n";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && strcmp(argv[1], "man") == 0) {
        const std::string missing = manMissing(argv[2]);
        if (!missing.empty()) {
            fputs(("kvctl(8) lacks:\n" + missing).c_str(), stderr);
        }
        return missing.empty() ? 0 : 1;
    }
    const std::string shell = argc == 2 ? argv[1] : "";
    const std::string text = shell == "bash"   ? bash()
                             : shell == "zsh"  ? zsh()
                             : shell == "fish" ? fish()
                                               : "";
    if (text.empty()) {
        fputs("Usage: kvctl_completions bash|zsh|fish, or kvctl_completions man PAGE\n", stderr);
        return 2;
    }
    return fputs(text.c_str(), stdout) >= 0 && fclose(stdout) == 0 ? 0 : 1;
}
