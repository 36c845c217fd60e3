# Doxygen input filter of the README: a link to a repository file that is
# not part of the reference (BENCHMARKS.md, a test's notes) becomes its plain
# text, where Doxygen would fail on a reference it cannot resolve. Lines
# linking the CHANGELOG, which is part of the reference, stay as they are.
/\]\(CHANGELOG\.md\)/b
s/\[([^]]*)\]\(([^):#]+)\)/\1/g
