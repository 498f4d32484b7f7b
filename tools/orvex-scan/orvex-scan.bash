# Completes the words of orvex-scan in bash.
_orvex_scan() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  local options="-h --help --version --processes --follow -x --one-file-system --pseudo --exclude
    --max-size --files0-from --identity --settle --time-limit --digests --no-type --no-signers --threads --passes --capacity
    --snapshot --baseline --json --format --metrics --watch --exec --verbose --quiet"
  case $before in
    --identity) mapfile -t COMPREPLY < <(compgen -W 'mtime ctime strict' -- "$word") ;;
    --digests)
      mapfile -t COMPREPLY < <(compgen -W 'blake2s256 md5 ripemd160 sha1 sha256 sha3-256 sha512-256 sm3' -- "$word")
      ;;
    --format) mapfile -t COMPREPLY < <(compgen -W 'table json jsonl sha256sum csv' -- "$word") ;;
    --metrics) mapfile -t COMPREPLY < <(compgen -W 'prometheus json' -- "$word") ;;
    *)
      case $word in
        -*) mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word") ;;
        *) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
      esac
      ;;
  esac
}
complete -o filenames -F _orvex_scan orvex-scan
