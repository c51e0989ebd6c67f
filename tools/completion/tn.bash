# Completion of tn for bash. What may stand where the cursor is, tn itself tells.

_tn() {
  local candidate current word words=() before=''
  # Bash takes "=" for a word of its own; here FIELD=VALUE is one.
  for word in "${COMP_WORDS[@]:1:COMP_CWORD}"; do
    if [[ $word == '=' || $before == *= ]] && ((${#words[@]} > 0)); then
      words[-1]+=$word
    else
      words+=("$word")
    fi
    before=$word
  done
  current=${words[-1]-}
  COMPREPLY=()
  while IFS=$'\t' read -r candidate _; do
    if [[ -z $candidate ]]; then continue; fi
    # What bash replaces begins behind the "=".
    if [[ $current == *=* ]]; then candidate=${candidate#"${current%=*}="}; fi
    COMPREPLY+=("$candidate")
  done < <("${COMP_WORDS[0]}" -t 500 complete -- "${words[@]}" 2>/dev/null | grep -v $'^\t')
  if [[ ${#COMPREPLY[@]} -eq 0 && ${words[0]-} == check ]]; then
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  fi
  # More is to follow behind a field's "=" and behind a program's "/".
  if [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == *[=/] ]]; then compopt -o nospace; fi
}

complete -F _tn tn
