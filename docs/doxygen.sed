# The headings of the header's comments as doxygen's, so that each stands by itself.
s/^ \* \(Codes\|Strings\|Records\|Threads\|Signals\|Memory\|Errors\|Output\|fork\|exit\)   *\([A-Z]\)/ * @par \1\n * \2/
s/^ \* \(Threads\|Ownership\|Errors\): / * @par \1\n * /
s/^ \* Returns: / * @return /
