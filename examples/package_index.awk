# Turns Debian's package index (the output of apt-cache dumpavail) into one JSON object:
#   {"bash": {"Version": "5.2.15-2+b8", "Installed-Size": 7164, ...}, ...}
#
# Size and Installed-Size become integers, everything else text. Lines that continue a field keep
# their line breaks. Of several stanzas for one package the first counts. Run it with LC_ALL=C: text
# passes through byte for byte.

function quoted(text) {
  gsub(/\\/, "\\\\&", text)
  gsub(/"/, "\\\"", text)
  gsub(/\t/, "\\t", text)
  gsub(/\n/, "\\n", text)
  return "\"" text "\""
}

function end_field() {
  if (field == "") return
  number = (field == "Size" || field == "Installed-Size") && value ~ /^[0-9]+$/
  fields = fields (fields == "" ? "" : ", ") quoted(field) ": " (number ? value : quoted(value))
  if (field == "Package") name = value
  field = ""
}

function end_package() {
  end_field()
  if (name != "" && !seen[name]++) printf "%s\n%s: {%s}", (packages++ ? "," : ""), quoted(name), fields
  name = fields = ""
}

BEGIN { printf "{" }
/^$/ { end_package(); next }
/^[ \t]/ { value = value "\n" $0; next }
{
  end_field()
  colon = index($0, ":")
  field = substr($0, 1, colon - 1)
  value = substr($0, colon + 1)
  sub(/^[ \t]+/, "", value)
}
END { end_package(); print "\n}" }
