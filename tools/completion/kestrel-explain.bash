# Bash completion of kestrel-explain.

_kestrel_explain() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()
  case $previous in
    --addresses) mapfile -t COMPREPLY < <(compgen -W "none public all" -- "$current") ;;
    *)
      if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "--alone --follow --json --verdict --redact --output --addresses --help
          --version" -- "$current")
      else
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
      fi
      ;;
  esac
}

complete -F _kestrel_explain kestrel-explain
