# Bash completion of the tools and the bench service, from what their --help says, so that it never lags behind them.
# Not of kestreld, which starts whatever it is given.

# _kestrel_rows HELP SECTION: a help text's rows of Subcommands, Positionals, or of whatever else there is: Options.
_kestrel_rows() {
  awk -v section="$2" '
    /^[^ ]/ { on = section == "Options" ? !/^(Subcommands|Positionals):/ : index($0, section ":") == 1; next }
    on && /^  [^ ]/' <<<"$1"
}

# _kestrel_words KIND CURRENT: completes what a help text calls KIND. Other kinds are texts that nobody can guess.
_kestrel_words() {
  local words=
  case $1 in
    *\{*\}*)
      words=${1#*\{}
      words=${words%%\}*}
      words=${words//,/ }
      ;;
    [a-z]*\|*) words=${1//|/ } ;;
    INTERFACE) words=$(ls /sys/class/net) ;;
    FILE*)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$2")
      return
      ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$2")
}

# _kestrel_argument HELP OPTION: what kind of argument the option has, or nothing.
_kestrel_argument() {
  local row pattern='^ +(-[a-zA-Z],)?(--[a-z-]+)( ([^ ]+))?'
  while IFS= read -r row; do
    [[ $row =~ $pattern ]] || continue
    [[ ${BASH_REMATCH[2]} == "$2" || ${BASH_REMATCH[1]%,} == "$2" ]] || continue
    case "$2 ${BASH_REMATCH[4]}" in
      *: | *' ') ;; # "Excludes:" and the like is no argument
      '--interface '*) echo INTERFACE ;;
      *) echo "${BASH_REMATCH[4]}" ;;
    esac
    return
  done < <(_kestrel_rows "$1" Options)
}

_kestrel() {
  local current=$2 previous=$3 program=${COMP_WORDS[0]} help commands command='' argument position=0 i
  COMPREPLY=()
  help=$("$program" --help 2>/dev/null) || return
  commands=$(_kestrel_rows "$help" Subcommands | awk '{print $1}')
  for ((i = 1; i < COMP_CWORD; ++i)); do
    if [[ ${COMP_WORDS[i]} == -* ]]; then
      [[ -z $(_kestrel_argument "$help" "${COMP_WORDS[i]}") ]] || ((++i))
    elif [[ -n $commands && -z $command ]]; then
      command=${COMP_WORDS[i]}
      [[ $'\n'$commands$'\n' == *$'\n'"$command"$'\n'* ]] || return
      help=$("$program" "$command" --help 2>/dev/null) || return
    else
      ((++position))
    fi
  done
  argument=$(_kestrel_argument "$help" "$previous")
  if [[ -n $argument ]]; then
    _kestrel_words "$argument" "$current"
  elif [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(_kestrel_rows "$help" Options | grep -oE '^ +(-[a-zA-Z],)?--[a-z-]+' |
      grep -oE -e '--[a-z-]+')" -- "$current")
  elif [[ -n $commands && -z $command ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$current")
  else
    _kestrel_words "$(_kestrel_rows "$help" Positionals | awk -v n="$position" '
      NR == n + 1 || $2 == "..." { print $1; exit }')" "$current"
  fi
}

complete -F _kestrel kestrel-find kestrel-decode kestrel-explain kestrel-platform-check skyport skyport-load
