# Bash completion of kestrel-decode.

_kestrel_decode() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()
  case $previous in
    --kind) mapfile -t COMPREPLY < <(compgen -W "body answer token refer" -- "$current") ;;
    --digits) ;;
    *)
      if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "--kind --encode --digits --verbose --help --version" -- "$current")
      else
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
      fi
      ;;
  esac
}

complete -F _kestrel_decode kestrel-decode
