# Turns the headers' comments into doxygen's: those at the top of a file, above a declaration and behind one. What stands
# further in, lists of failures and code, is shown as it stands.
FNR == 1 && /^\/\/ / { print "/// @file" }
/^ *\/\// {
  sub(/^ *\/\/ ?/, "")
  if (/^  /) {
    print (inside ? "" : "///\n") "///     " $0
  } else {
    gsub(/</, "\\&lt;")
    print "/// " $0
  }
  inside = /^  /
  next
}
{ inside = 0 }
/[;,0-9a-z] +\/\/ / { sub(/\/\/ /, "///< ") }
{ print }
