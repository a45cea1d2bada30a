# Completion of nfslib for bash.

# Files and directories that begin with the current word, or what `compgen` makes of other options.
_nfslib_paths() {
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(compgen "$@" -- "$current")
}

_nfslib_words() {
  mapfile -t COMPREPLY < <(compgen -W "$1" -- "$current")
}

# The lines of standard input, which are taken as they are: compgen -W would expand what is in them.
_nfslib_lines() {
  local line
  while IFS= read -r line; do
    [[ $line != "$current"* ]] || COMPREPLY+=("$line")
  done
}

_nfslib() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]}
  local options="--help --rw --nfs-version --proto --nfs-port --mount-port --alias --classic --lease
    --group --max-open-files --rsize --archive-cache --verbose --stats-file --log-level --log-file"
  COMPREPLY=()

  if [ "$COMP_CWORD" -eq 1 ]; then
    _nfslib_words "serve mount unmount list --help"
    return
  fi
  case $previous in
    --nfs-version) _nfslib_words "3 4"; return ;;
    --proto) _nfslib_words "tcp udp"; return ;;
    --log-level) _nfslib_words "error warn info debug"; return ;;
    --log-file | --stats-file) _nfslib_paths -f; return ;;
    --group) _nfslib_lines < <(getent group | cut -d: -f1); return ;;
    --nfs-port | --mount-port | --lease | --max-open-files | --rsize | --archive-cache) return ;;
  esac
  case $command:$current in
    serve:-*) _nfslib_words "$options -h -v" ;;
    mount:-*) _nfslib_words "$options --daemon -h -v" ;;
    unmount:-* | list:-*) _nfslib_words "--help -h" ;;
    serve:* | mount:*)
      _nfslib_paths -f
      [[ -z $current || memory != "$current"* ]] || COMPREPLY+=(memory)
      ;;
    unmount:*)
      compopt -o filenames 2>/dev/null  # for the quotes that they may need
      _nfslib_lines < <("${COMP_WORDS[0]}" list 2>/dev/null | tail -n +2 | cut -f2)
      ;;
  esac
}

complete -F _nfslib nfslib
