-- Address maps' patterns: only what a server can compile and match in bounded time, memory and stack gets into its way.
--
-- Servers hand a pattern to the C library (regcomp with REG_EXTENDED) and match it against request URIs that strangers
-- choose, on the thread that serves the call. A pattern that the C library cannot bear takes the server down. What it
-- needs is known beforehand: it expands intervals by copying, calls itself for every parenthesis and back reference, and
-- keeps every state of the pattern's automaton that a URI leads to. The limits below bound each of these.

SET LOCAL ROLE oryx_owner;

-- Reading a pattern ------------------------------------------------------------------------------------------------
-- Signs are numbers. 0 to 255 is a byte that stands for itself, 256 and more one of a set of bytes, -1 "(", -2 ")",
-- -3 "|", -4 "?", -5 "*", and the anchors: -6 the beginning, -7 the end, -8 \b, -9 \B, -10 \<, -11 \>. Sets are
-- bit strings of 256.

-- The bytes of a range.
CREATE FUNCTION address_map_pattern_range(low integer, high integer) RETURNS bit varying LANGUAGE sql IMMUTABLE
AS $$ SELECT (repeat('0', low) || repeat('1', high - low + 1) || repeat('0', 255 - high))::bit varying $$;

-- The bytes of a named class in the locale that servers run in. A name that only another locale knows may be any byte.
CREATE FUNCTION address_map_pattern_class(name text) RETURNS bit varying LANGUAGE sql IMMUTABLE
SET search_path = pg_catalog, pg_temp AS $$
    SELECT coalesce(
        (SELECT bit_or(public.address_map_pattern_range(low, high)::bit(256))
             FROM (VALUES ('alnum', 48, 57), ('alnum', 65, 90), ('alnum', 97, 122), ('alpha', 65, 90),
                          ('alpha', 97, 122), ('blank', 9, 9), ('blank', 32, 32), ('cntrl', 0, 31), ('cntrl', 127, 127),
                          ('digit', 48, 57), ('graph', 33, 126), ('lower', 97, 122), ('print', 32, 126),
                          ('punct', 33, 47), ('punct', 58, 64), ('punct', 91, 96), ('punct', 123, 126), ('space', 9, 13),
                          ('space', 32, 32), ('upper', 65, 90), ('xdigit', 48, 57), ('xdigit', 65, 70),
                          ('xdigit', 97, 102), ('word', 48, 57), ('word', 65, 90), ('word', 95, 95), ('word', 97, 122)
                  ) class (class_name, low, high)
             WHERE class_name = name),
        public.address_map_pattern_range(0, 255))
$$;

-- The set of a bracket expression whose "[" stands before `at`, and where the pattern goes on behind its "]"; NULL where
-- it does not end, so that the pattern does not compile.
CREATE FUNCTION address_map_pattern_bracket(bytes bytea, INOUT at integer, OUT bits bit varying)
LANGUAGE plpgsql IMMUTABLE SET search_path = pg_catalog, pg_temp AS $$
DECLARE
    size CONSTANT integer := length(bytes);
    negated CONSTANT boolean := at < size AND get_byte(bytes, at) = ascii('^');
    start CONSTANT integer := at + negated::integer;
    low integer;
    high integer;
    closing integer;
    name text;
BEGIN
    bits := repeat('0', 256);
    at := start;
    LOOP
        IF at >= size THEN
            at := NULL;
            RETURN;
        END IF;
        low := get_byte(bytes, at);
        EXIT WHEN low = ascii(']') AND at > start;
        at := at + 1;
        IF low = ascii('[') AND at < size AND chr(get_byte(bytes, at)) IN (':', '.', '=') THEN
            closing := position(substr(bytes, at + 1, 1) || ']'::bytea IN substr(bytes, at + 2));
            IF closing = 0 THEN
                at := NULL;
                RETURN;
            END IF;
            name := encode(substr(bytes, at + 2, closing - 1), 'escape');
            IF chr(get_byte(bytes, at)) = ':' OR closing <> 2 THEN
                bits := bits | CASE WHEN name = 'word' THEN public.address_map_pattern_range(0, 255)
                                      ELSE public.address_map_pattern_class(name) END;
                at := at + 1 + closing + 1;
                CONTINUE;
            END IF;
            low := get_byte(bytes, at + 1);
            at := at + 1 + closing + 1;
        END IF;
        high := low;
        -- "-" stands for itself in the last place.
        IF at + 1 < size AND get_byte(bytes, at) = ascii('-') AND get_byte(bytes, at + 1) <> ascii(']') THEN
            high := get_byte(bytes, at + 1);
            at := at + 2;
            IF high = ascii('[') AND at + 3 < size AND chr(get_byte(bytes, at)) IN ('.', '=') THEN
                high := get_byte(bytes, at + 1);
                at := at + 4;
            END IF;
        END IF;
        bits := bits | public.address_map_pattern_range(least(low, high), greatest(low, high));
    END LOOP;
    at := at + 1;
    IF negated THEN
        bits := ~bits;
    END IF;
END
$$;

-- The pattern's signs with every repetition written out as the C library does it, or why it is refused; neither where it
-- does not compile, which leaves a map that matches nothing.
CREATE FUNCTION address_map_pattern_signs(pattern text, OUT refusal text, OUT signs integer[], OUT sets bit varying[])
LANGUAGE plpgsql IMMUTABLE SET search_path = pg_catalog, pg_temp AS $$
DECLARE
    max_bytes CONSTANT integer := 512;
    max_depth CONSTANT integer := 16;
    max_signs CONSTANT integer := 1000;
    max_ways CONSTANT integer := 256;
    max_empty CONSTANT integer := 16;
    too_large CONSTANT text :=
        format('stands for more than %s characters and operators when its repetitions are written out', max_signs);
    bytes bytea;
    size integer;
    at integer := 0;
    sign text;
    set_read bit varying;
    interval_read text[];
    low integer;
    high integer;                        -- none: no end
    written integer[] := '{}';
    atom integer;                        -- where the last expression begins that a repetition would take
    copied integer[];
    last_anchor integer := 0;
    empty integer := 0;                  -- alternatives without anything in them
    -- In how many ways the anchors may hold and not hold: the alternatives read so far, and the one being read.
    ways integer := 0;
    way integer := 1;
    -- Whether an empty text matches the expression read last, what stands before it in its alternative, and one of the
    -- alternatives before that.
    atom_empty boolean := true;
    run_empty boolean := true;
    other_empty boolean := false;
    opened integer[] := '{}';            -- of every open parenthesis: where, and what stands before it
    outer_ways integer[] := '{}';
    outer_way integer[] := '{}';
    outer_run_empty boolean[] := '{}';
    outer_other_empty boolean[] := '{}';
    depth integer := 0;
BEGIN
    IF octet_length(pattern) > max_bytes THEN
        refusal := format('is longer than %s bytes', max_bytes);
        RETURN;
    END IF;
    bytes := convert_to(pattern, 'UTF8');
    size := length(bytes);
    sets := ARRAY[public.address_map_pattern_range(0, 255), public.address_map_pattern_class('word')];
    sets := sets || ARRAY[~sets[2], public.address_map_pattern_class('space'), ~public.address_map_pattern_class('space')];
    WHILE at < size LOOP
        sign := chr(greatest(get_byte(bytes, at), 1));
        at := at + 1;
        IF sign IN ('*', '+', '?', '{') THEN
            IF atom IS NULL THEN
                RETURN;  -- nothing to repeat
            END IF;
            low := (sign = '+')::integer;
            high := CASE sign WHEN '?' THEN 1 END;
            IF sign = '{' THEN
                interval_read := regexp_match(encode(substr(bytes, at + 1), 'escape'), '^(([0-9]+)|([0-9]*),([0-9]*))\}');
                IF interval_read IS NULL OR interval_read[1] ~ '[1-9][0-9]{5}' THEN
                    RETURN;  -- no interval, or one far beyond the C library's own limit
                END IF;
                at := at + octet_length(interval_read[1]) + 1;
                low := coalesce(interval_read[2], nullif(interval_read[3], ''), '0')::integer;
                high := coalesce(interval_read[2], nullif(interval_read[4], ''))::integer;
                IF greatest(low, high) > 32767 OR high < low THEN
                    RETURN;
                END IF;
            END IF;
            IF last_anchor >= atom AND sign = '?' THEN
                way := least(way * 2, 10000);
            END IF;
            IF atom_empty AND sign <> '?' THEN
                refusal := 'repeats what may match nothing';
                RETURN;
            END IF;
            atom_empty := atom_empty OR low = 0;
            copied := written[atom:];
            written := written[:atom - 1];
            IF cardinality(written) + low * cardinality(copied) + 2
                + coalesce(high - low, 1) * (cardinality(copied) + 3) > max_signs THEN
                refusal := too_large;
                RETURN;
            END IF;
            -- x{2,4} becomes xx((x)?x)?, x+ becomes xx*: optional copies nest to the left.
            IF high > low OR high IS NULL OR low > 1 THEN
                written := written || -1;
                FOR i IN 1 .. low LOOP
                    written := written || copied;
                END LOOP;
                IF high IS NULL THEN
                    written := written || -1 || copied || -2 || -5;
                ELSIF high > low THEN
                    written := written || array_fill(-1, ARRAY[high - low]);
                    FOR i IN 1 .. high - low LOOP
                        written := written || copied || -2 || -4;
                    END LOOP;
                END IF;
                written := written || -2;
            ELSIF low = 1 THEN
                written := written || copied;
            END IF;
            CONTINUE;
        END IF;
        atom := cardinality(written) + 1;
        run_empty := run_empty AND atom_empty;
        atom_empty := false;
        IF sign IN ('|', ')') AND coalesce(written[atom - 1] IN (-1, -3), true) THEN
            empty := empty + 1;
            IF empty > max_empty THEN
                refusal := format('has more than %s empty alternatives or groups', max_empty);
                RETURN;
            END IF;
        END IF;
        IF sign = '(' THEN
            depth := depth + 1;
            IF depth > max_depth THEN
                refusal := format('nests parentheses more than %s deep', max_depth);
                RETURN;
            END IF;
            opened[depth] := atom;
            outer_ways[depth] := ways;
            outer_way[depth] := way;
            outer_run_empty[depth] := run_empty;
            outer_other_empty[depth] := other_empty;
            atom_empty := true;
            run_empty := true;
            other_empty := false;
            ways := 0;
            way := 1;
            atom := NULL;
            written := written || -1;
        ELSIF sign = ')' AND depth > 0 THEN
            atom := opened[depth];
            way := least(outer_way[depth] * CASE WHEN last_anchor >= atom THEN ways + way ELSE 1 END, 10000);
            ways := outer_ways[depth];
            atom_empty := other_empty OR run_empty;
            run_empty := outer_run_empty[depth];
            other_empty := outer_other_empty[depth];
            depth := depth - 1;
            written := written || -2;
        ELSIF sign = '|' THEN
            ways := least(ways + way, 10000);
            way := 1;
            other_empty := other_empty OR run_empty;
            run_empty := true;
            atom_empty := true;
            atom := NULL;
            written := written || -3;
        ELSIF sign IN ('^', '$') THEN
            atom := NULL;
            atom_empty := true;
            written := written || CASE sign WHEN '^' THEN -6 ELSE -7 END;
            last_anchor := cardinality(written);
            way := least(way * 2, 10000);
        ELSIF sign = '.' THEN
            written := written || 256;
        ELSIF sign = '[' THEN
            SELECT bracket.at, bracket.bits INTO at, set_read
                FROM public.address_map_pattern_bracket(bytes, at) bracket;
            IF at IS NULL THEN
                RETURN;
            END IF;
            sets := sets || set_read;
            written := written || 255 + cardinality(sets);
        ELSIF sign = '\' THEN
            IF at >= size THEN
                RETURN;
            END IF;
            sign := chr(greatest(get_byte(bytes, at), 1));
            at := at + 1;
            IF sign BETWEEN '1' AND '9' THEN
                refusal := format('has a back reference (\%s)', sign);
                RETURN;
            END IF;
            written := written || CASE sign
                WHEN 'w' THEN 257 WHEN 'W' THEN 258 WHEN 's' THEN 259 WHEN 'S' THEN 260
                WHEN '`' THEN -6 WHEN '''' THEN -7 WHEN 'b' THEN -8 WHEN 'B' THEN -9 WHEN '<' THEN -10 WHEN '>' THEN -11
                ELSE get_byte(bytes, at - 1) END;
            IF written[atom] < 0 THEN
                atom := NULL;
                atom_empty := true;
                last_anchor := cardinality(written);
                way := least(way * CASE WHEN sign IN ('b', 'B') THEN 4 ELSE 2 END, 10000);
            END IF;
        ELSE
            written := written || get_byte(bytes, at - 1);
        END IF;
        IF cardinality(written) > max_signs THEN
            refusal := too_large;
            RETURN;
        END IF;
    END LOOP;
    IF last_anchor > 0 AND ways + way > max_ways THEN
        refusal := format('lets its anchors hold in more than %s ways', max_ways);
    ELSIF depth = 0 THEN
        signs := written;
    END IF;
END
$$;

-- How the automaton goes on from sign to sign where what stands before and what follows is as given: `beginning` is the
-- text's, and words are told by the last byte and the next. Positions are those of the signs that take a byte. From one
-- that is in sources[n] it goes on to those in targets[n]; `first` is where it begins.
CREATE FUNCTION address_map_pattern_links(signs integer[], beginning boolean, word_before boolean, word_behind boolean,
                                          OUT first bit varying, OUT sources bit varying[], OUT targets bit varying[])
LANGUAGE plpgsql IMMUTABLE SET search_path = pg_catalog, pg_temp AS $$
DECLARE
    none CONSTANT bit varying := repeat('0', (SELECT count(*)::integer FROM unnest(signs) sign WHERE sign >= 0));
    position integer := 0;
    sign integer;
    -- Of the expression read last, of what stands before it in its alternative, and of the alternatives before that:
    -- whether it takes an empty text, and where it begins and ends.
    item_empty boolean := true;  item_first bit varying := none;  item_last bit varying := none;
    run_empty boolean := true;   run_first bit varying := none;   run_last bit varying := none;
    other_empty boolean := false; other_first bit varying := none; other_last bit varying := none;
    depth integer := 0;
    outer_empty boolean[] := '{}';
    outer_bits bit varying[] := '{}';
BEGIN
    sources := '{}';
    targets := '{}';
    FOREACH sign IN ARRAY signs || -3 LOOP
        IF sign = -5 THEN
            sources := sources || item_last;
            targets := targets || item_first;
        END IF;
        IF sign IN (-4, -5) THEN
            item_empty := true;
            CONTINUE;
        END IF;
        -- What was read last will not be repeated any more.
        IF run_last <> none AND item_first <> none THEN
            sources := sources || run_last;
            targets := targets || item_first;
        END IF;
        run_first := CASE WHEN run_empty THEN run_first | item_first ELSE run_first END;
        run_last := CASE WHEN item_empty THEN run_last | item_last ELSE item_last END;
        run_empty := run_empty AND item_empty;
        item_empty := true;
        item_first := none;
        item_last := none;
        IF sign >= 0 THEN
            item_empty := false;
            item_first := set_bit(none, position, 1);
            item_last := item_first;
            position := position + 1;
        ELSIF sign = -1 THEN
            depth := depth + 1;
            outer_empty[2 * depth] := run_empty;
            outer_empty[2 * depth + 1] := other_empty;
            outer_bits[4 * depth] := run_first;
            outer_bits[4 * depth + 1] := run_last;
            outer_bits[4 * depth + 2] := other_first;
            outer_bits[4 * depth + 3] := other_last;
            run_empty := true;
            run_first := none;
            run_last := none;
            other_empty := false;
            other_first := none;
            other_last := none;
        ELSIF sign IN (-2, -3) THEN
            other_empty := other_empty OR run_empty;
            other_first := other_first | run_first;
            other_last := other_last | run_last;
            run_empty := true;
            run_first := none;
            run_last := none;
            IF sign = -2 THEN
                item_empty := other_empty;
                item_first := other_first;
                item_last := other_last;
                run_empty := outer_empty[2 * depth];
                other_empty := outer_empty[2 * depth + 1];
                run_first := outer_bits[4 * depth];
                run_last := outer_bits[4 * depth + 1];
                other_first := outer_bits[4 * depth + 2];
                other_last := outer_bits[4 * depth + 3];
                depth := depth - 1;
            END IF;
        ELSE
            item_empty := CASE sign WHEN -6 THEN beginning
                                    WHEN -8 THEN word_before <> word_behind
                                    WHEN -9 THEN word_before = word_behind
                                    WHEN -10 THEN word_behind AND NOT word_before
                                    WHEN -11 THEN word_before AND NOT word_behind
                                    ELSE false END;  -- the end never has a byte behind it
        END IF;
    END LOOP;
    first := other_first;
END
$$;

-- How many states the automaton has, how many positions are in them together, and in the largest; no more than so many
-- states are looked at. A state is where the pattern may go on; where words count, once for either kind of byte that may
-- follow. `anywhere`: whether it may begin in the midst of a text.
CREATE FUNCTION address_map_pattern_states(signs integer[], sets bit varying[], most integer,
                                           OUT states integer, OUT positions integer, OUT largest integer,
                                           OUT anywhere boolean)
LANGUAGE plpgsql IMMUTABLE SET search_path = pg_catalog, pg_temp AS $$
DECLARE
    taking CONSTANT integer[] :=
        ARRAY(SELECT sign FROM unnest(signs) WITH ORDINALITY u (sign, n) WHERE sign >= 0 ORDER BY n);
    width CONSTANT integer := cardinality(taking);
    words CONSTANT boolean := EXISTS (SELECT FROM unnest(signs) sign WHERE sign BETWEEN -11 AND -8);
    none CONSTANT bit varying := repeat('0', width);
    used_sets CONSTANT integer[] := ARRAY(SELECT DISTINCT sign FROM unnest(taking) sign WHERE sign > 256)
        || CASE WHEN words THEN 257 ELSE 256 END;
    begin_state bit varying := '';
    takes bit varying[];                 -- for every byte that makes a difference: the positions that take it,
    is_word boolean[];                   -- and whether it is of a word, where that counts
    sources bit varying[] := '{}';
    targets bit varying[] := '{}';
    before boolean[] := '{}';
    link record;
BEGIN
    IF width = 0 THEN
        states := 1;
        positions := 0;
        largest := 0;
        RETURN;
    END IF;
    SELECT array_agg(mask), array_agg(word) INTO takes, is_word FROM (
        SELECT DISTINCT (SELECT string_agg(CASE WHEN sign < 256 THEN (sign = byte)::integer::text
                                                ELSE get_bit(sets[sign - 255], byte)::text END, '' ORDER BY n)::bit varying
                             FROM unnest(taking) WITH ORDINALITY u (sign, n)) AS mask,
                        words AND get_bit(sets[2], byte) = 1 AS word
            FROM (SELECT sign FROM unnest(taking) sign WHERE sign < 256
                  UNION
                  SELECT min(byte) FROM generate_series(1, 255) byte
                      WHERE byte <> ALL (taking)
                      GROUP BY (SELECT string_agg(get_bit(sets[used - 255], byte)::text, '') FROM unnest(used_sets) used)
                 ) bytes (byte)
    ) difference WHERE mask <> none;
    anywhere := false;
    FOR link IN
        SELECT word_before, word_behind, beginning, l.*
            FROM (VALUES (false), (true)) b (beginning), (VALUES (false), (true)) p (word_before),
                 (VALUES (false), (true)) f (word_behind),
                 LATERAL public.address_map_pattern_links(signs, beginning, word_before, word_behind) l
            WHERE (words OR NOT (word_before OR word_behind)) AND NOT (beginning AND word_before)
            ORDER BY word_behind
    LOOP
        IF link.beginning THEN
            begin_state := begin_state || link.first;
        ELSE
            anywhere := anywhere OR link.first <> none;
            sources := sources || link.sources;
            targets := targets || ARRAY(SELECT CASE WHEN NOT words THEN target WHEN link.word_behind THEN none || target
                                                    ELSE target || none END
                                            FROM unnest(link.targets) WITH ORDINALITY u (target, n) ORDER BY n);
            before := before || array_fill(link.word_before, ARRAY[cardinality(link.sources)]);
        END IF;
    END LOOP;
    WITH RECURSIVE state (at) AS (
        SELECT begin_state::text
        UNION
        SELECT next.at::text
            FROM state, unnest(takes, is_word) byte (mask, word),
                 LATERAL (SELECT substring(state.at, CASE WHEN word THEN width + 1 ELSE 1 END, width)::bit varying & mask
                              OFFSET 0) taken (bits),
                 LATERAL (SELECT bit_or(target) FROM unnest(sources, targets, before) link (source, target, word_before)
                              WHERE word_before = word AND (source & taken.bits) <> none) next (at)
            WHERE taken.bits <> none AND next.at IS NOT NULL
    )
    SELECT count(*), sum(size), max(CASE WHEN words THEN (size + 1) / 2 ELSE size END) INTO states, positions, largest
        FROM (SELECT length(replace(at, '0', '')) AS size FROM state LIMIT most) reached;
END
$$;

-- The rule ---------------------------------------------------------------------------------------------------------

-- Why a pattern is refused; NULL for one that is not, an empty one and one that does not compile among them: both match
-- nothing.
CREATE FUNCTION address_map_pattern_refusal(pattern text) RETURNS text LANGUAGE plpgsql IMMUTABLE
SET search_path = pg_catalog, pg_temp AS $$
DECLARE
    max_states CONSTANT integer := 500;
    max_positions CONSTANT integer := 5000;
    max_anywhere CONSTANT integer := 16;
    read record;
    automaton record;
BEGIN
    read := public.address_map_pattern_signs(pattern);
    -- A row of characters, one of them optional at most, needs no counting: four states for each. So are most patterns
    -- of a large dial plan.
    IF read.signs IS NULL
        OR (cardinality(read.signs) <= max_states / 4 AND -3 <> ALL (read.signs) AND -5 <> ALL (read.signs)
            AND cardinality(array_positions(read.signs, -4)) <= 1) THEN
        RETURN read.refusal;
    END IF;
    automaton := public.address_map_pattern_states(read.signs, read.sets, max_states + 1);
    IF automaton.states > max_states THEN
        RETURN format('needs more than %s states: what follows a repetition matches what is repeated', max_states);
    END IF;
    IF automaton.positions > max_positions THEN
        RETURN format('may go on in too many ways at once (%s in all states together, at most %s)',
                      automaton.positions, max_positions);
    END IF;
    -- At each byte of a text that it does not match, from each byte on, it is seen whether this is an end.
    IF automaton.anywhere AND automaton.largest > max_anywhere
        AND EXISTS (SELECT FROM unnest(read.signs) sign WHERE sign < -6) THEN
        RETURN format('has $ or a word''s edge in it, does not begin with ^, and may go on in more than %s ways at once',
                      max_anywhere);
    END IF;
    RETURN NULL;
END
$$;

CREATE FUNCTION address_map_pattern_is_safe(pattern text) RETURNS boolean LANGUAGE plpgsql IMMUTABLE
SET search_path = pg_catalog, pg_temp AS $$
DECLARE
    refusal CONSTANT text := public.address_map_pattern_refusal(pattern);
BEGIN
    IF refusal IS NOT NULL THEN
        RAISE check_violation USING MESSAGE = 'the pattern ' || refusal, SCHEMA = 'public', TABLE = 'address_map',
                                    COLUMN = 'pattern', CONSTRAINT = 'address_map_pattern_is_safe',
                                    HINT = 'SELECT address_map_pattern_refusal(''...'') tells why any pattern is refused.';
    END IF;
    RETURN true;
END
$$;

-- Whoever an operator lets write address maps has the rule checked with its own rights. They read nothing but their
-- arguments.
GRANT EXECUTE ON FUNCTION address_map_pattern_refusal(text), address_map_pattern_is_safe(text),
    address_map_pattern_range(integer, integer), address_map_pattern_class(text),
    address_map_pattern_bracket(bytea, integer), address_map_pattern_signs(text),
    address_map_pattern_links(integer[], boolean, boolean, boolean),
    address_map_pattern_states(integer[], bit varying[], integer) TO PUBLIC;

-- Rows from before the rule ----------------------------------------------------------------------------------------
-- They go where no server reads them, whole: the operator mends them there and inserts them again.

CREATE TABLE address_map_refused (
    map_id            integer PRIMARY KEY,
    handle            text,
    csid              integer,             -- of a contact set that may have gone since
    pattern           text,
    modification_time timestamp(0) without time zone,
    priority          integer,
    refusal           text NOT NULL,       -- as address_map_pattern_refusal gives it
    refused_at        timestamp with time zone NOT NULL DEFAULT now()
);
GRANT SELECT ON address_map_refused TO oryx_reader;

LOCK TABLE address_map IN SHARE ROW EXCLUSIVE MODE;
DO $$
DECLARE
    refused record;
BEGIN
    FOR refused IN
        WITH judged AS MATERIALIZED (SELECT *, address_map_pattern_refusal(pattern) AS refusal FROM address_map),
             moved AS (DELETE FROM address_map USING judged WHERE address_map.map_id = judged.map_id AND refusal IS NOT NULL)
        INSERT INTO address_map_refused (map_id, handle, csid, pattern, modification_time, priority, refusal)
            SELECT map_id, handle, csid, pattern, modification_time, priority, refusal
                FROM judged WHERE refusal IS NOT NULL ORDER BY map_id
            RETURNING *
    LOOP
        RAISE WARNING 'address map % (handle %, csid %) is moved to address_map_refused: its pattern %',
            refused.map_id, quote_nullable(refused.handle), refused.csid, refused.refusal;
    END LOOP;
END
$$;

ALTER TABLE address_map ADD CONSTRAINT address_map_pattern_is_safe CHECK (address_map_pattern_is_safe(pattern));

RESET ROLE;
