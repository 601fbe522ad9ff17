# SPDX-License-Identifier: Apache-2.0
# Completion for fish: commands, options, the ids of the applications that listen now, and of their actions.

function __nelvoctl_apps
    nelvoctl list --timeout 0.2 2>/dev/null | string replace --regex ' .*' ''
end

# Whether an action's id comes next; prints the application's id then.
function __nelvoctl_wants_action
    set --local words (commandline --tokenize --cut-at-cursor --current-process)
    set --local plain (string match --invert -- '-*' $words[2..])
    test (count $plain) -eq 2; and contains -- $plain[1] call bench; and echo $plain[2]
end

function __nelvoctl_actions
    nelvoctl actions (__nelvoctl_wants_action) 2>/dev/null | string replace --regex ' .*' ''
end

# Whether the application's id comes next: behind the command there are options only.
function __nelvoctl_wants_app
    set --local words (commandline --tokenize --cut-at-cursor --current-process)
    set --local plain (string match --invert -- '-*' $words[2..])
    test (count $plain) -eq 1; and not contains -- $plain[1] list trace record replay help
end

set --local asking call state watch shell bench doctor

complete --command nelvoctl --no-files
complete --command nelvoctl --long json --description 'One JSON document on stdout, errors too'
complete --command nelvoctl --short o --long output --exclusive --arguments 'json text' --description 'The form of the output'
complete --command nelvoctl --long version --description 'Print the version'
complete --command nelvoctl --condition '__fish_seen_subcommand_from help' --arguments 'list actions call state watch shell bench doctor trace record replay mcp causes'
complete --command nelvoctl --short h --long help --description 'Print help'
complete --command nelvoctl --condition __nelvoctl_wants_app --arguments '(__nelvoctl_apps)'
complete --command nelvoctl --condition '__nelvoctl_wants_action >/dev/null' --arguments '(__nelvoctl_actions)'
complete --command nelvoctl --condition '__fish_seen_subcommand_from mcp' --arguments '(__nelvoctl_apps)'
for line in 'list:List the applications that can be reached' \
    'actions:List the actions that an application declares' \
    'call:Ask an application to perform an action' \
    'state:Ask an application for its state' \
    'watch:Ask for the state again and again, and print what changes' \
    'shell:Open a prompt for requests' \
    'bench:Measure how long an action takes' \
    'doctor:Check what can keep an application from answering' \
    'trace:Run an application and show what becomes of each request' \
    'record:Run an application and keep what its clients ask and get' \
    'replay:Ask again what a session holds, and compare the answers' \
    'mcp:Serve applications to an assistant, over MCP on stdin and stdout' \
    'help:Explain a command, or the causes that messages name'
    set --local parts (string split : $line)
    complete --command nelvoctl --condition __fish_use_subcommand --arguments $parts[1] --description $parts[2]
end
complete --command nelvoctl --condition "__fish_seen_subcommand_from list mcp $asking" --long timeout --exclusive --description 'Seconds to wait for the answer'
complete --command nelvoctl --condition "__fish_seen_subcommand_from $asking" --long wait --exclusive --description 'Seconds the application may take to start'
complete --command nelvoctl --condition "__fish_seen_subcommand_from mcp $asking" --long as --exclusive --description 'The application id to present'
complete --command nelvoctl --condition '__fish_seen_subcommand_from watch bench' --short n --long count --exclusive --description 'How many requests'
complete --command nelvoctl --condition '__fish_seen_subcommand_from watch mcp' --long interval --exclusive --description 'Seconds between two requests'
complete --command nelvoctl --condition '__fish_seen_subcommand_from doctor' --long manifest --require-parameter --force-files --description 'The manifest'
complete --command nelvoctl --condition '__fish_seen_subcommand_from trace' --long chrome --require-parameter --force-files --description 'Write a trace for a browser'
complete --command nelvoctl --condition '__fish_seen_subcommand_from trace' --force-files
complete --command nelvoctl --condition '__fish_seen_subcommand_from actions' --long check --require-parameter --force-files --description 'Check this catalogue'
complete --command nelvoctl --condition '__fish_seen_subcommand_from mcp' --long catalogue --require-parameter --force-files --description 'The actions of an application'
complete --command nelvoctl --condition '__fish_seen_subcommand_from mcp' --long read-only --description 'Offer only what is declared as read-only'
complete --command nelvoctl --condition '__fish_seen_subcommand_from record replay' --force-files
complete --command nelvoctl --condition '__fish_seen_subcommand_from replay' --arguments '(__nelvoctl_apps)'
complete --command nelvoctl --condition '__fish_seen_subcommand_from replay' --long speed --exclusive --description 'How much faster than recorded'
complete --command nelvoctl --condition '__fish_seen_subcommand_from replay' --long as-fast-as-possible --description 'Without the pauses'
complete --command nelvoctl --condition '__fish_seen_subcommand_from replay' --long ignore --exclusive --description 'A JSON pointer that is not compared'
complete --command nelvoctl --condition '__fish_seen_subcommand_from mcp' --long record --require-parameter --force-files --description 'Keep what is asked and answered'
