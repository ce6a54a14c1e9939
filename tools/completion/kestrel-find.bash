# Bash completion of kestrel-find.

_kestrel_find() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local commands="list show status service alias alias-status domain ops watch"
  local options="--json -p --parsable --timeout --interface --user --password-file --broadcast --help --version"
  local command="" position=0 i
  COMPREPLY=()
  case $previous in
    --interface)
      mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net)" -- "$current")
      return
      ;;
    --password-file)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      return
      ;;
    --timeout | --user | --interval | --rounds) return ;;
  esac
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case ${COMP_WORDS[i]} in
      --interface | --password-file | --timeout | --user | --interval | --rounds) ((++i)) ;;
      -*) ;;
      *)
        if [[ -z $command ]]; then command=${COMP_WORDS[i]}; else ((++position)); fi
        ;;
    esac
  done
  case $command in
    alias) options+=" --wait" ;;
    domain) options+=" --yes" ;;
    watch) options+=" --interval --rounds" ;;
  esac
  if [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
  elif [[ -z $command ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$current")
  elif [[ $command == service && $position -eq 1 ]]; then
    mapfile -t COMPREPLY < <(compgen -W "on off" -- "$current")
  fi
}

complete -F _kestrel_find kestrel-find
