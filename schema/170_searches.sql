-- Searches for a part of a text, among a million rows. An index of trigrams finds a telephone number in a millisecond by
-- its last digits. Asked for all that stands around them as well, the scheme, the domain and the event package, it reads
-- where every row of the table is listed, several times over, which takes as long as reading the table.

SET LOCAL ROLE oryx_owner;

-- A text that servers search with LIKE and % at both ends. In all else it is a text.
CREATE DOMAIN searched_text AS text;

-- Of a pattern, the part that tells most rows apart, as a pattern that is true wherever the whole one is. It is the end
-- of what stands in front of an @, or else of what has a digit in it: numbers differ in their last digits, and share the
-- country, the area and the domain. Longer parts find hardly fewer rows, and read more of the index.
-- A pattern with wildcards within it is left alone.
CREATE FUNCTION telling_part(pattern text) RETURNS text LANGUAGE sql IMMUTABLE STRICT PARALLEL SAFE
RETURN CASE WHEN btrim(pattern, '%') ~ '[%_\\]' THEN pattern
            ELSE '%' || right(coalesce(substring(pattern FROM '([^@#%]{3,})@'),
                                       substring(pattern FROM '[^@#%]*[0-9][^@#%]*'), btrim(pattern, '%')), 8) || '%' END;

-- LIKE of such texts. It becomes part of the statement that is planned, where its second half is what an index is asked.
-- The first, written as a call, is never asked of one.
CREATE FUNCTION is_like(searched searched_text, pattern searched_text) RETURNS boolean LANGUAGE sql IMMUTABLE PARALLEL SAFE
RETURN textlike(searched::text, pattern::text) AND searched::text LIKE telling_part(pattern::text);

-- Chosen where the pattern is a literal or a parameter; an expression of type text is matched as ever.
CREATE OPERATOR ~~ (LEFTARG = searched_text, RIGHTARG = searched_text, FUNCTION = is_like);

-- Whoever searches has them planned with its own rights; they read nothing but their arguments.
GRANT EXECUTE ON FUNCTION telling_part(text), is_like(searched_text, searched_text) TO PUBLIC;

-- The type is another in name only: neither rows nor indexes are written anew. Only those of one direction's dialogs
-- would be, so they go first, and until there are others those searches read the table.
DROP INDEX subscription_states_incoming, subscription_states_outgoing;
ALTER TABLE subscription_states ALTER fromhdr TYPE searched_text, ALTER tohdr TYPE searched_text,
    ALTER requesturi TYPE searched_text;
ALTER TABLE event_watchers ALTER presentitykey TYPE searched_text;
ALTER TABLE event_sources ALTER presentity TYPE searched_text;

RESET ROLE;
