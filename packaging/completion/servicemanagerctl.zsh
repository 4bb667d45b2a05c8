#compdef servicemanagerctl
# Completion of servicemanagerctl for zsh, with the labels that there are now.

local -a commands root labels
local word
integer at=2
while ((at < CURRENT)); do
  word=$words[at]
  case $word in
    --root) root=(--root $words[at+1]); ((++at)) ;;
    -*) ;;
    *) commands+=($word) ;;
  esac
  ((++at))
done

_servicemanagerctl_labels() {
  labels=(${(f)"$(servicemanagerctl $root $@ list 2>/dev/null | awk 'NR > 1 && $1 ~ /^[A-Za-z0-9_.-]+$/ && $1 ~ /[.]/ { print $1 }')"})
  compadd -a labels
}

if [[ $words[CURRENT-1] == --root ]]; then
  _directories
elif [[ $words[CURRENT-1] == --serve ]]; then
  _files
elif [[ $words[CURRENT-1] == --type ]]; then
  [[ $commands[1] == list ]] && compadd core feature || compadd boolean integer real number string data
elif [[ $words[CURRENT-1] == --format ]]; then
  compadd text json sarif
elif [[ $words[CURRENT-1] == --level ]]; then
  compadd error warning notice info debug
elif [[ $words[CURRENT-1] == --to ]]; then
  compadd xml binary json
elif [[ $words[CURRENT] == -* ]]; then
  compadd -- --help --version --json --root --wide --failed --fields --value --wait --no-wait --timeout --quiet --all \
    --not-running --openmetrics --follow --type --serve --strict --format --no-programs --catalogue --settings \
    --release --product --diff --to --output --log --lines --since --this-run --level
else
  case "$commands[1] $commands[2]" in
    ' ') compadd list show start stop restart reload-settings is-running is-failed health explain extensions watch top \
      installer settings log endpoints execinfo jobs lint explain-code plan new run plist platform log-test doctor \
      support-bundle metrics ;;
    list\ * | show\ * | start\ * | stop\ * | restart\ * | log\ * | is-*\ * | explain\ * | 'installer begin') _servicemanagerctl_labels ;;
    'installer ') compadd begin end ;;
    'settings ') compadd list get set unset ;;
    settings\ *) (($#commands == 2)) &&
      compadd update common deviceControl appControl cmx heartbeat ntp webControl ;;
    'endpoints ') compadd lookup register ;;
    'jobs ') compadd list show submit remove ;;
    'jobs show' | 'jobs remove') _servicemanagerctl_labels jobs ;;
    new\ *) _directories ;;
    'plist ') compadd convert get set lint diff ;;
    'jobs submit' | support-bundle\ * | execinfo\ * | lint\ * | plan\ * | run\ * | plist\ *) _files ;;
  esac
fi
