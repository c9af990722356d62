# Bash completion of vigilactl, which knows itself what may stand in the place of the last word.

_vigilactl() {
  # Readline breaks words at ":" and "=", too, and replaces what is behind the last break only.
  local line=${COMP_LINE:0:COMP_POINT} words offers word
  read -ra words <<<"$line"
  [[ $line == *[[:blank:]] ]] && words+=('')
  word=${words[-1]}
  mapfile -t offers < <("${words[0]/#\~/$HOME}" complete "${words[@]:1}" 2>/dev/null)
  if [[ ${offers[0]} == files ]]; then
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
  else
    offers=("${offers[@]:1}")
    COMPREPLY=("${offers[@]%%$'\t'*}")
  fi
  COMPREPLY=("${COMPREPLY[@]#"${word%"${word##*[:=]}"}"}")
}

complete -F _vigilactl vigilactl
