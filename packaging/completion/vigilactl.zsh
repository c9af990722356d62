#compdef vigilactl
# Zsh completion of vigilactl, which knows itself what may stand in the place of the last word.

local program=${${(Q)words[1]}/#\~\//$HOME/} offer
local -a lines offers
lines=("${(@f)$("$program" complete "${(@Q)words[2,CURRENT]}" 2>/dev/null)}")
if [[ $lines[1] == files ]]; then
  _files
else
  for offer in "${(@)lines[2,-1]}"; do
    offers+=("${${offer%%$'\t'*}//:/\\:}:${offer#*$'\t'}")
  done
  _describe -V vigilactl offers
fi
