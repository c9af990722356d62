# Fish completion of vigilactl, which knows itself what may stand in the place of the last word.

function __vigilactl_offers
    set -l words (commandline -opc)
    set -l word (commandline -ct)
    set -l offers ($words[1] complete $words[2..-1] "$word" 2>/dev/null)
    if test "$offers[1]" = files
        __fish_complete_path "$word"
    else
        string join \n -- $offers[2..-1]
    end
end

complete --command vigilactl --no-files --keep-order --arguments '(__vigilactl_offers)'
