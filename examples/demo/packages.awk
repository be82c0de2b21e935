# Turns the stanzas of `apt-cache dumpavail` into JSON Lines: the package's name is the key; name,
# description and tags are the text; the rest is metadata. A name that comes again (another
# architecture or version) is left out, so that the number of lines is the number of documents.
# The file `plain` gets keys and texts again as lines that grep can search, a tab for a line break.

function quoted(text) {
  gsub(/\\/, "\\\\", text)
  gsub(/"/, "\\\"", text)
  gsub(/\n/, "\\n", text)
  gsub(/\t/, "\\t", text)
  gsub(/[\001-\037\177]/, " ", text)
  return "\"" text "\""
}

function field(name) {
  return name in fields ? "," quoted(tolower(name)) ":" quoted(fields[name]) : ""
}

function finish() {
  name = fields["Package"]
  if (name != "" && !(name in seen)) {
    seen[name] = 1
    text = name "\n" fields["Description"] "\n" fields["Tag"]
    print "{\"key\":" quoted(name) ",\"text\":" quoted(text) field("Version") field("Section") \
      field("Maintainer") field("Homepage") "}"
    gsub(/\n/, "\t", text)
    print name "\t" text >plain
  }
  split("", fields)
}

/^$/ { finish(); next }
/^[ \t]/ { fields[current] = fields[current] "\n" substr($0, 2); next }
{
  colon = index($0, ":")
  current = substr($0, 1, colon - 1)
  if (current ~ /^Description-[a-z][a-z]/ && current != "Description-md5") current = "Description"
  fields[current] = substr($0, colon + 2)
}
END { finish() }
