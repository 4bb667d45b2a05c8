# Completion of servicemanagerctl for bash, with the labels that there are now.

_servicemanagerctl_labels() {
  servicemanagerctl "$@" list 2>/dev/null | awk 'NR > 1 && $1 ~ /^[A-Za-z0-9_.-]+$/ && $1 ~ /[.]/ { print $1 }'
}

# The labels that begin with the word. `compgen -W` would expand what is in them as the shell does.
_servicemanagerctl_complete_labels() {
  local word=$1 label
  shift
  COMPREPLY=()
  while read -r label; do
    if [[ $label == "$word"* ]]; then COMPREPLY+=("$label"); fi
  done < <(_servicemanagerctl_labels "$@")
}

_servicemanagerctl() {
  local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local commands=() root=() index
  for ((index = 1; index < COMP_CWORD; ++index)); do
    case ${COMP_WORDS[index]} in
      --root)
        root=(--root "${COMP_WORDS[index + 1]}")
        index=$((index + 1))
        ;;
      -*) ;;
      *) commands+=("${COMP_WORDS[index]}") ;;
    esac
  done
  if [ "$previous" = --root ]; then
    mapfile -t COMPREPLY < <(compgen -d -- "$word")
    return
  fi
  if [ "$previous" = --serve ]; then
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
    return
  fi
  local choices=
  case $previous in
    --type) choices='boolean integer real number string data' ;;
    --format) choices='text json sarif' ;;
    --to) choices='xml binary json' ;;
    --level) choices='error warning notice info debug' ;;
  esac
  if [ "$previous" = --type ] && [ "${commands[0]}" = list ]; then choices='core feature'; fi
  if [ -n "$choices" ]; then
    mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$word")
    return
  fi
  local words=
  case ${commands[*]:0:2} in
    '') words='list show start stop restart reload-settings is-running is-failed health explain extensions watch top
      installer settings log endpoints execinfo jobs lint explain-code plan new run plist platform log-test doctor support-bundle metrics' ;;
    list* | show | start* | stop* | restart* | is-* | explain | log | log\ * | 'installer begin')
      if [[ $word != -* ]]; then
        _servicemanagerctl_complete_labels "$word" "${root[@]}"
        return
      fi
      ;;
    installer) words='begin end' ;;
    settings) words='list get set unset' ;;
    settings\ *)
      if [ "${#commands[@]}" -eq 2 ]; then
        words='update common deviceControl appControl cmx heartbeat ntp webControl'
      fi
      ;;
    endpoints) words='lookup register' ;;
    jobs) words='list show submit remove' ;;
    'jobs show' | 'jobs remove')
      if [[ $word != -* ]]; then
        _servicemanagerctl_complete_labels "$word" "${root[@]}" jobs
        return
      fi
      ;;
    new*)
      if [[ $word != -* ]]; then
        mapfile -t COMPREPLY < <(compgen -d -- "$word")
        return
      fi
      ;;
    plist) words='convert get set lint diff' ;;
    'jobs submit' | support-bundle | execinfo* | lint* | plan* | run* | plist\ *)
      if [[ $word != -* ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        return
      fi
      ;;
  esac
  if [[ $word == -* ]]; then
    words='--help --json --root'
    if [ -z "${commands[*]}" ]; then words+=' --version'; fi
    case ${commands[*]:0:2} in
      list*) words+=' --wide --failed --type --fields --value' ;;
      start* | restart*) words+=' --wait --no-wait --timeout --log' ;;
      stop*) words+=' --wait --no-wait --timeout' ;;
      is-*) words+=' --quiet' ;;
      explain) words+=' --all --not-running' ;;
      health) words+=' --openmetrics' ;;
      log | log\ *) words+=' --follow --since --this-run --level' ;;
      show*) words+=' --lines' ;;
      metrics) words+=' --serve' ;;
      'settings set' | 'plist set') words+=' --type' ;;
      lint*) words+=' --strict --format --no-programs' ;;
      new*) words+=' --product' ;;
      run*) words+=' --catalogue --settings' ;;
      plan*) words+=' --catalogue --settings --release --product --diff' ;;
      'plist convert') words+=' --to --output' ;;
    esac
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}
complete -F _servicemanagerctl servicemanagerctl
