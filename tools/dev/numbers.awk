# SPDX-License-Identifier: Apache-2.0
# Lists, from what readelf prints of a library's debug information, the numbers of the interface that
# hang on no function: enumerators, and the records of system calls with offset and size of each field.
/ Abbrev Number: / {
  tag = $NF
  id = $1
  gsub(/.*<|>:/, "", id)
  name = ""
}
/ DW_AT_name / { name = $NF }
/ DW_AT_byte_size / { size[id] = $NF }
/ DW_AT_type / {
  type[id] = $NF
  gsub(/<0x|>/, "", type[id])
}
tag == "(DW_TAG_structure_type)" && / DW_AT_(name|byte_size) / { record = name }
tag == "(DW_TAG_structure_type)" && / DW_AT_byte_size / && record ~ /^qor_sys_/ { print record, $NF }
tag == "(DW_TAG_member)" && / DW_AT_data_member_location/ && record ~ /^qor_sys_/ {
  field[id] = record "." name " " $NF
}
tag == "(DW_TAG_enumerator)" && / DW_AT_const_value / && name ~ /^(QOR|RB)_/ { print name, $NF }
END {
  for (id in field) {
    # Past typedefs, to what has a size: of an array, that is one element.
    for (of = id; of in type && !(of in size);) {
      of = type[of]
    }
    print field[id], size[of]
  }
}
