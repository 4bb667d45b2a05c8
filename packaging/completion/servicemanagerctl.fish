# Completion of servicemanagerctl for fish, with the labels that there are now.

function __servicemanagerctl_labels
    servicemanagerctl $argv list 2>/dev/null | awk 'NR > 1 && $1 ~ /^[A-Za-z0-9_.-]+$/ && $1 ~ /[.]/ { print $1 }'
end

# Whether the words so far, without options, are these.
function __servicemanagerctl_at
    set -l words (string match -v -- '-*' (commandline -opc))
    test "$words[2..-1]" = "$argv"
end

function __servicemanagerctl_in
    set -l words (string match -v -- '-*' (commandline -opc))
    string match -q -- "$argv*" "$words[2..-1]"
end

complete -c servicemanagerctl -f
complete -c servicemanagerctl -l help -d 'The commands or options'
complete -c servicemanagerctl -n __servicemanagerctl_at -l version -d 'The version'
complete -c servicemanagerctl -l json -d 'For programs'
complete -c servicemanagerctl -l root -x -a '(__fish_complete_directories)' -d 'Another platform root'
complete -c servicemanagerctl -n __servicemanagerctl_at -a 'list show start stop restart reload-settings is-running is-failed health explain extensions watch top installer settings log endpoints execinfo jobs lint explain-code plan new run plist platform log-test doctor support-bundle metrics'
complete -c servicemanagerctl -n '__servicemanagerctl_in list' -l wide
complete -c servicemanagerctl -n '__servicemanagerctl_in list' -l failed
complete -c servicemanagerctl -n '__servicemanagerctl_in list' -l value
complete -c servicemanagerctl -n '__servicemanagerctl_in list' -l fields -x
complete -c servicemanagerctl -n '__servicemanagerctl_in list' -l type -x -a 'core feature'
for command in start stop restart
    complete -c servicemanagerctl -n "__servicemanagerctl_in $command" -l wait
    complete -c servicemanagerctl -n "__servicemanagerctl_in $command" -l no-wait
    complete -c servicemanagerctl -n "__servicemanagerctl_in $command" -l timeout -x
end
complete -c servicemanagerctl -n '__servicemanagerctl_in explain' -l all
complete -c servicemanagerctl -n '__servicemanagerctl_in explain' -l not-running
complete -c servicemanagerctl -n '__servicemanagerctl_in health' -l openmetrics
complete -c servicemanagerctl -n '__servicemanagerctl_in metrics' -l serve -r -F
complete -c servicemanagerctl -n '__servicemanagerctl_in log' -s f -l follow
complete -c servicemanagerctl -n '__servicemanagerctl_in log' -l since -x
complete -c servicemanagerctl -n '__servicemanagerctl_in log' -l this-run
complete -c servicemanagerctl -n '__servicemanagerctl_in log' -l level -x -a 'error warning notice info debug'
complete -c servicemanagerctl -n '__servicemanagerctl_in show' -l lines -x
for command in start restart
    complete -c servicemanagerctl -n "__servicemanagerctl_in $command" -l log
end
for command in list start stop restart log is-running is-failed 'installer begin'
    complete -c servicemanagerctl -n "__servicemanagerctl_in $command" -a '(__servicemanagerctl_labels)'
end
for command in is-running is-failed
    complete -c servicemanagerctl -n "__servicemanagerctl_in $command" -s q -l quiet
end
complete -c servicemanagerctl -n '__servicemanagerctl_at show' -a '(__servicemanagerctl_labels)'
complete -c servicemanagerctl -n '__servicemanagerctl_at explain' -a '(__servicemanagerctl_labels)'
complete -c servicemanagerctl -n '__servicemanagerctl_at installer' -a 'begin end'
complete -c servicemanagerctl -n '__servicemanagerctl_at settings' -a 'list get set unset'
for command in list get set unset
    complete -c servicemanagerctl -n "__servicemanagerctl_at settings $command" -a 'update common deviceControl appControl cmx heartbeat ntp webControl'
end
complete -c servicemanagerctl -n '__servicemanagerctl_in settings set' -l type -x -a 'boolean integer real number string data'
complete -c servicemanagerctl -n '__servicemanagerctl_at endpoints' -a 'lookup register'
complete -c servicemanagerctl -n '__servicemanagerctl_at jobs' -a 'list show submit remove'
for command in show remove
    complete -c servicemanagerctl -n "__servicemanagerctl_at jobs $command" -a '(__servicemanagerctl_labels jobs)'
end
for command in 'jobs submit' execinfo support-bundle
    complete -c servicemanagerctl -n "__servicemanagerctl_in $command" -F
end
complete -c servicemanagerctl -n '__servicemanagerctl_in lint' -F
complete -c servicemanagerctl -n '__servicemanagerctl_in lint' -l strict
complete -c servicemanagerctl -n '__servicemanagerctl_in lint' -l no-programs
complete -c servicemanagerctl -n '__servicemanagerctl_in lint' -l format -x -a 'text json sarif'
for option in catalogue settings
    complete -c servicemanagerctl -n '__servicemanagerctl_in plan' -l $option -r -F
    complete -c servicemanagerctl -n '__servicemanagerctl_in run' -l $option -r -F
end
complete -c servicemanagerctl -n '__servicemanagerctl_in plan' -l release -x
complete -c servicemanagerctl -n '__servicemanagerctl_in plan' -l product -x
complete -c servicemanagerctl -n '__servicemanagerctl_in plan' -l diff
complete -c servicemanagerctl -n '__servicemanagerctl_in new' -a '(__fish_complete_directories)'
complete -c servicemanagerctl -n '__servicemanagerctl_in new' -l product -x
complete -c servicemanagerctl -n '__servicemanagerctl_at plist' -a 'convert get set lint diff'
for command in convert get set lint diff
    complete -c servicemanagerctl -n "__servicemanagerctl_in plist $command" -F
end
complete -c servicemanagerctl -n '__servicemanagerctl_in plist convert' -l to -x -a 'xml binary json'
complete -c servicemanagerctl -n '__servicemanagerctl_in plist convert' -l output -r -F
complete -c servicemanagerctl -n '__servicemanagerctl_in plist set' -l type -x -a 'boolean integer real number string data json'
