# Bash completion for orrery-host.

_orrery_host_words() { mapfile -t COMPREPLY < <(compgen -W "$1" -- "$2"); }

# Files, or with a second argument those with such a name, and folders.
_orrery_host_files() {
  compopt -o filenames 2>/dev/null
  if [[ -n ${2-} ]]; then
    mapfile -t COMPREPLY < <(compgen -f -X "!$2" -- "$1"; compgen -d -- "$1")
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$1")
  fi
}

# What follows an option; fails for options without a value.
_orrery_host_value() {
  case $1 in
    --input | --output | --cacert) _orrery_host_files "$2" ;;
    --log-level) _orrery_host_words "error warn info debug trace" "$2" ;;
    --summary) _orrery_host_words "text json" "$2" ;;
    --set) compopt -o nospace 2>/dev/null
      _orrery_host_words "host= port= timeoutSecs= tls= tlsCertificateAuthorityFile=
        tlsAcceptUnrecognizedCertificates= authentication/authenticationType=
        authentication/username= authentication/password= basePath= proxy/host= proxy/port=
        proxy/authentication/authenticationType= proxy/authentication/username=
        proxy/authentication/password= followRedirects= cookieJar= numClients= maxResponseKB=
        maxResponsePolicy=" "$2" ;;
    --status-port | -H | --header | -d | --data | --data-binary | -F | --form | -u | --user | -x | \
      --proxy) COMPREPLY=() ;;
    *) return 1 ;;
  esac
}

# How many arguments that are no options stand between the command and the current word.
_orrery_host_arguments() {
  local i count=0
  for ((i = $1 + 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      -*) _orrery_host_value "${COMP_WORDS[i]}" "" && ((i++)) ;;
      *) ((++count)) ;;
    esac
  done
  COMPREPLY=()
  return "$count"
}

_orrery_host() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local command='' at options
  COMPREPLY=()
  for ((at = 1; at < COMP_CWORD; at++)); do
    if [[ ${COMP_WORDS[at]} != -* ]]; then
      command=${COMP_WORDS[at]}
      break
    fi
  done
  # --option=value comes as three words, and @FILE as two.
  if [[ $current == = ]]; then current=''; elif [[ $previous == = ]]; then previous=${COMP_WORDS[COMP_CWORD - 2]}; fi
  if [[ $previous == @ || $current == @ ]]; then
    _orrery_host_files "${current#@}"
    return
  fi
  case $command in
    '')
      options="-h --help --help-all --version"
      [[ $current == -* ]] || options="run check request demo"
      _orrery_host_words "$options" "$current"
      return ;;
    run) options="--input --output --log-level --status-port --quiet --summary" ;;
    request) options="-H --header -d --data --data-binary -F --form -u --user -x --proxy -k
      --insecure --cacert -i --include --json --set --log-level" ;;
    *) options='' ;;
  esac
  _orrery_host_value "$previous" "$current" && return
  if [[ $current == -* ]]; then
    _orrery_host_words "-h --help $options" "$current"
    return
  fi
  _orrery_host_arguments "$at"
  case $command$? in
    run0 | check0) _orrery_host_files "$current" '*.@(yaml|yml)' ;;
    request0) _orrery_host_words "GET PUT POST DELETE HEAD TRACE" "$current" ;;
    request1) compopt -o nospace 2>/dev/null
      _orrery_host_words "http:// https://" "$current" ;;
  esac
}

complete -F _orrery_host orrery-host
