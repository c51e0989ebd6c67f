#!/bin/sh
# The shipped configuration documents are valid by the schema, and the schema refuses what it is there to refuse. Run from the
# root of the tree.
set -u

failed=0
valid() { xmllint --nonet --noout --schema docs/www.xsd "$1" >/dev/null 2>&1; }

xmllint --nonet --noout docs/www.xsd || failed=1
for document in image/tarn/etc/www/*.xml tests/xml/valid/*.xml; do
  if ! valid "$document"; then
    echo "$document: must be valid"
    xmllint --nonet --noout --schema docs/www.xsd "$document"
    failed=1
  fi
done
for document in tests/xml/invalid/*.xml; do
  valid "$document"
  case $? in
    1 | 3 | 4) ;; # not well-formed, not valid
    *) echo "$document: must be refused"; failed=1 ;;
  esac
done
exit $failed
