# complete.zsh FOLDER LINE ...: what an interactive zsh, with the completions of FOLDER, lists when
# the key that lists choices is pressed at the end of each LINE; after each of them, a line "--".
zmodload zsh/zpty
zpty shell zsh -f -i
zpty -w shell "PROMPT=; fpath=($1 \$fpath); autoload -Uz compinit; compinit -u -D;
  bindkey '^I' list-choices; bindkey '^X' kill-whole-line; LISTMAX=10000;
  zstyle ':completion:*' verbose no; print RE''ADY"
while zpty -r shell output; do [[ $output == *READY* ]] && break; done
shift
for line; do
  zpty -w -n shell "$line"$'\t\x18'"print DO''NE"$'\n'
  while zpty -r shell output; do
    [[ $output == *DONE* ]] && break
    print -r -- "$output"
  done | sed -e 's/\x1b\[[0-9;?]*[A-Za-z]//g' -e 's/\r/ /g'
  print -r -- --
done
zpty -d shell
