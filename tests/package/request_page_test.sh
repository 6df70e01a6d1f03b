#!/bin/bash
# The example request_page prints a page that an HTML parser takes apart into the request's own items.
#
#   request_page_test.sh PROGRAM
set -eu
. "$(dirname "$0")/common.sh"
program=$1

# parse XPATH: what the page holds there, with blanks for hard blanks.
parse() {
    xmllint --html --xpath "$1" "$work/page" 2>"$work/complaints" | tr -d '\r' | sed 's/\xc2\xa0/ /g'
}

# expect XPATH TEXT
expect() {
    parse "$1" | diff <(printf '%s\n' "$2") - || fail "$1: $(cat "$work/page")"
}

# block N: the text of the N-th block, without its empty lines.
block() {
    parse "string((//blockquote)[$1])" | sed '/^$/d'
}

"$program" example.org rdxGetVersion 'no markup' >"$work/page" || fail "$program ended with $?"
expect 'count(//blockquote)' 4
expect 'concat(count(//tt/blockquote), " ", count(//blockquote//blockquote))' '4 0'
expect 'string(//tt/b)' GET
expect 'normalize-space(//tt/text()[1])' '/Tavrin?FunctionName=rdxGetVersion HTTP/1.1'
for title in 'general headers:' 'request specific headers:' 'entity headers:' 'entity body:'; do
    expect "count(//tt/text()[normalize-space(.) = '$title']/following-sibling::*[2][self::blockquote])" 1
done
[ "$(block 1)" = 'Connection: keep-alive' ] || fail "general headers: $(block 1)"
[ "$(block 2)" = "Host: example.org
User-Agent: VXL tnp/0.1
Accept: */*
Authorization: Basic dXNlcjpwYXNz" ] || fail "request headers: $(block 2)"
[ "$(block 3)" = "Content-type: text/xml
Content-length: 9" ] || fail "entity headers: $(block 3)"
[ "$(block 4)" = 'no markup' ] || fail "entity body: $(block 4)"
# Names are bold and values emphasised.
expect 'concat(count(//blockquote/b), " ", count(//blockquote/em))' '7 7'
# The one thing to complain about is kept: the page never ends its <TT>.
xmllint --html --noout "$work/page" 2>"$work/complaints"
grep -q 'mismatch: body and tt' "$work/complaints" || fail "$(cat "$work/complaints")"
[ "$(grep -c 'parser error' "$work/complaints")" -eq 1 ] || fail "$(cat "$work/complaints")"

# Arguments stand in the page as they are: a packet becomes elements of it.
"$program" example.org rdxGetVersion '<wddxPacket><header/><data/></wddxPacket>' >"$work/page"
expect 'name((//blockquote)[4]/*)' wddxpacket
expect 'concat(count(//wddxpacket/header), " ", count(//wddxpacket//data))' '1 1'

"$program" example.org >"$work/page" 2>"$work/complaints" && fail 'a call without arguments was accepted'
grep -q '^use: ' "$work/complaints" || fail "$(cat "$work/complaints")"
long=$(printf 'x%.0s' $(seq 1 66100))
"$program" example.org "$long" "$long" >"$work/page" 2>"$work/complaints" &&
    fail 'a page that does not fit was written'
grep -qx 'no page: -2' "$work/complaints" || fail "$(cat "$work/complaints")"
end 'a page that an HTML parser reads'
