# journal.sh - sourced by the set-up, test and demo scripts (needs $racine,
# the repository).  What package installation, builds and test runs print
# goes to one log file per command, build-journal/<name>.log, whose path is
# printed once; the terminal gets what a user reads (what is built,
# started, delivered, passed), and the end of the log when a step fails.
#
#   journal_ouvre NAME   opens build-journal/NAME.log, emptied, and exports
#                        VORANE_JOURNAL; a script called by another that has
#                        opened one writes into the caller's
#   journal CMD ARG...   runs the command (standard input from /dev/null),
#                        its output appended to the log after a "$ CMD" line;
#                        on failure prints the command, the last 40 lines of
#                        the log and its path on standard error, and returns
#                        the command's status

journal_ouvre() {
  [ -z "${VORANE_JOURNAL:-}" ] || return 0
  mkdir -p "$racine/build-journal"
  VORANE_JOURNAL=$racine/build-journal/$1.log
  : >"$VORANE_JOURNAL"
  export VORANE_JOURNAL
  echo "(sorties des installations, constructions et tests : $VORANE_JOURNAL)"
}

journal() {
  local statut=0
  printf '\n$ %s\n' "$*" >>"$VORANE_JOURNAL"
  "$@" </dev/null >>"$VORANE_JOURNAL" 2>&1 || statut=$?
  if [ "$statut" -ne 0 ]; then
    {
      echo "ECHEC (statut $statut) : $*"
      echo "--- fin de $VORANE_JOURNAL :"
      tail -n 40 "$VORANE_JOURNAL" | sed 's/^/    /'
    } >&2
  fi
  return "$statut"
}
