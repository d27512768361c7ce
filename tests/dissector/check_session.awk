# Checks tshark's decoding of a captured driver session, one line per kplc
# frame (fields in the order of FIELDS in run.sh, occurrences joined by '|').
# Reads first writes.tsv (what the session wrote, how, and the names the
# driver resolves for it), then the program names of the tag file, then the
# decoded frames. Prints one line per failed check; exits 1 if any failed.
#
# Every expected value comes from the session's own inputs: the values written,
# the tag file, or another frame of the capture (a location the driver sends
# must be the one the dissector read from the resolve response before it).

BEGIN {
    FS = "\t"; failures = 0; checks = 0
    for (i = 32; i < 127; i++) ord[sprintf("%c", i)] = i
}

function fail(msg) { print "FAIL: " msg; failures++ }
function expect(cond, msg) { checks++; if (!cond) fail(msg) }

function pad4(v) { return sprintf("0x%04x", v) }
# The words the driver sends for a value: 16-bit words, least significant
# word first (values of the panel's little-endian memory).
function words(how, arg,    n, parts, i, v, out, w, k) {
    n = split(arg, parts, " ")
    out = ""
    for (i = 1; i <= n; i++) {
        v = parts[i] + 0
        if (how == "word16") { if (v < 0) v += 65536; w = 1 }
        else if (how == "word32") { if (v < 0) v += 4294967296; w = 2 }
        else { w = 4 }
        for (k = 0; k < w; k++) {
            out = out (out == "" ? "" : "|") pad4(v % 65536)
            v = int(v / 65536)
        }
    }
    return out
}
# Text travels as its bytes and their terminating zero, two to a word (earlier
# byte high): the bytes of the text, then zero bytes up to an even count.
function text_words(s,    i, n, out, hi, lo) {
    out = ""
    n = length(s)
    for (i = 1; i <= n + 1; i += 2) {
        hi = i <= n ? ord[substr(s, i, 1)] : 0
        lo = i + 1 <= n ? ord[substr(s, i + 1, 1)] : 0
        out = out (out == "" ? "" : "|") pad4(hi * 256 + lo)
    }
    return out
}
function hex_to_num(h,    i, c, v) {
    sub(/^0x/, "", h)
    v = 0
    for (i = 1; i <= length(h); i++) v = v * 16 + index("0123456789abcdef", tolower(substr(h, i, 1))) - 1
    return v
}
function first(list,    p) { split(list, p, "|"); return p[1] }

FILENAME == ARGV[1] {
    nwrites++
    w_assign[nwrites] = $1; w_scope[nwrites] = $2; w_names[nwrites] = $3
    w_how[nwrites] = $4; w_arg[nwrites] = $5
    gsub(/ /, "|", w_names[nwrites])
    next
}
FILENAME == ARGV[2] { programs[$1] = 1; nprograms++; next }

{
    f = $1; stream = ($2 != "" ? "tcp" $2 : "udp" $3)
    kind[f] = $4; seq[f] = $5; cmd[f] = $6; for_cmd[f] = $7; echo[f] = $8; req_in[f] = $9
    scope[f] = $10; names[f] = $11; area[f] = $12; loc[f] = $13; nwords[f] = $14; word[f] = $15
    target[f] = $16; bitv[f] = $17; bitn[f] = $18; device[f] = $19; bitaddr[f] = $20
    itembit[f] = $21; pnames[f] = $22; pids[f] = $23; strm[f] = stream
    order[++nframes] = f
    # The driver waits for each answer, so no segment carries two frames.
    expect(seq[f] !~ /\|/, "frame " f ": several kplc frames in one segment")

    if (kind[f] == "response") {
        r = req_in[f]
        expect(r != "" && kind[r] == "request", "frame " f ": response without its request")
        expect(for_cmd[f] == echo[f], "frame " f ": paired with command " for_cmd[f] " but answers " echo[f])
        expect(seq[f] == seq[r], "frame " f ": sequence " seq[f] " paired with request sequence " seq[r])
        resp_of[r] = f
    } else if (kind[f] != "request") {
        fail("frame " f ": neither request nor response")
    }
}

END {
    # Catalogue: fixed sequence numbers, and the programs of the tag file.
    for (n = 1; n <= nframes; n++) {
        f = order[n]
        if (cmd[f] == "0x0c2c") { expect(seq[f] == 0, "frame " f ": first catalogue request with sequence " seq[f]); catalogues++ }
        if (cmd[f] == "0x0c25") {
            expect(seq[f] == 1, "frame " f ": program catalogue request with sequence " seq[f])
            r = resp_of[f]
            k = split(pnames[r], pn, "|"); split(pids[r], pi, "|")
            expect(k == nprograms, "frame " r ": " k " programs listed, the tag file has " nprograms)
            for (i = 1; i <= k; i++) {
                expect(pn[i] in programs, "frame " r ": unknown program " pn[i])
                program_id[pn[i]] = pi[i]
            }
        }
    }
    expect(catalogues > 0, "no catalogue exchange decoded")

    # Every request that uses resolved locations uses those of the resolve
    # response the dissector decoded just before it on the same stream.
    for (n = 1; n <= nframes; n++) {
        f = order[n]
        if (cmd[f] == "0x0c28") { last_resolve[strm[f]] = f; continue }
        if (kind[f] != "request" || cmd[f] == "0x0c2c" || cmd[f] == "0x0c25") continue
        q = last_resolve[strm[f]]
        r = resp_of[q]
        expect(q != "" && r != "", "frame " f ": no symbol resolve exchange before it")
        if (cmd[f] == "0x1e09") {
            # Entry by entry: the item's area and location, except that the
            # driver clears the bit number (low 4 bits) of some BOOL locations.
            k = split(area[f], ea, "|"); split(loc[f], el, "|"); m = split(area[r], ia, "|"); split(loc[r], il, "|")
            same = (k == m)
            for (i = 1; same && i <= k; i++) {
                same = ea[i] == ia[i] && (el[i] == il[i] || hex_to_num(el[i]) == hex_to_num(il[i]) - hex_to_num(il[i]) % 16)
            }
            expect(same, "frame " f ": location entries " loc[f] " differ from the resolve items " loc[r])
            # Value of each name, for the read-back checks below.
            v = resp_of[f]
            k = split(nwords[f], wc, "|"); split(word[v], vw, "|")
            split(target[f], tn, "|"); pos = 0
            for (i = 1; i <= k; i++) {
                s = ""; for (j = 1; j <= wc[i]; j++) s = s (j > 1 ? "|" : "") vw[pos + j]
                # the first read of a name is the one after the writes
                if (!(tn[i] in readback)) readback[tn[i]] = s
                pos += wc[i]
            }
            reads++
        } else if (cmd[f] == "0x1e01" || cmd[f] == "0x1e03") {
            expect(area[f] == first(area[r]) && loc[f] == first(loc[r]),
                   "frame " f ": writes to " area[f] "/" loc[f] " not to the first resolve item " first(loc[r]))
        } else if (cmd[f] == "0x3200" || cmd[f] == "0x3300") {
            expect(hex_to_num(bitaddr[f]) == hex_to_num(first(loc[r])) % 65536,
                   "frame " f ": bit address " bitaddr[f] " for location " first(loc[r]))
        }
        used[cmd[f]]++
    }
    expect(reads > 0, "no read by location exchange decoded")

    # The writes of the session, in order, on the stream that carried them.
    w = 1
    for (n = 1; n <= nframes && w <= nwrites; n++) {
        q = order[n]
        if (cmd[q] != "0x0c28" || names[q] != w_names[w]) continue
        want_scope = w_scope[w] == "global" ? "global" : "program " program_id[w_scope[w]]
        expect(scope[q] == want_scope, w_assign[w] ": scope " scope[q] ", expected " want_scope)
        r = resp_of[q]
        # the request after this exchange on the same stream
        f = ""
        for (m = n + 1; m <= nframes; m++) if (strm[order[m]] == strm[q] && kind[order[m]] == "request") { f = order[m]; break }
        how = w_how[w]
        if (how == "word16" || how == "word32" || how == "word64") {
            expect(cmd[f] == "0x1e01" && word[f] == words(how, w_arg[w]),
                   w_assign[w] ": sent " cmd[f] " " word[f] ", expected 0x1e01 " words(how, w_arg[w]))
            expect(readback[first(w_names[w])] != "" && index(word[f], readback[first(w_names[w])]) == 1,
                   w_assign[w] ": read back " readback[first(w_names[w])])
        } else if (how == "text") {
            expect(cmd[f] == "0x1e01" && word[f] == text_words(w_arg[w]),
                   w_assign[w] ": sent " cmd[f] " " word[f] ", expected 0x1e01 " text_words(w_arg[w]))
            expect(index(readback[w_names[w]], text_words(w_arg[w])) == 1,
                   w_assign[w] ": read back " readback[w_names[w]])
        } else if (how == "count") {
            expect(cmd[f] == "0x1e01" && nwords[f] == w_arg[w], w_assign[w] ": " nwords[f] " words sent")
        } else if (how == "bit") {
            expect(cmd[f] == "0x1e03" && bitv[f] == w_arg[w] && bitn[f] == first(itembit[r]),
                   w_assign[w] ": sent " cmd[f] " value " bitv[f] " bit " bitn[f] ", resolved bit " itembit[r])
        } else if (how == "set") {
            expect(cmd[f] == "0x3200" && device[f] == w_arg[w], w_assign[w] ": sent " cmd[f] " device " device[f])
        }
        w++
    }
    expect(w > nwrites, "write " w_assign[w] " not found in the capture")
    expect(used["0x3300"] > 0, "no reset bit request decoded")
    expect(used["0x1e03"] > 0 && used["0x3200"] > 0 && used["0x1e01"] > 0, "a write command is missing")
    print checks - failures " passed, " failures " failed: session checks"
    exit failures > 0
}
