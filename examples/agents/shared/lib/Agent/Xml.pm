# SPDX-License-Identifier: Apache-2.0
#
# XML documents out of any bytes. Documents are strings of bytes, in UTF-8.
package Agent::Xml;
use strict;
use warnings;
use 5.010;
use Exporter qw(import);

our @EXPORT_OK = qw(document element text_element);

sub document {
    my ($root) = @_;
    return qq(<?xml version="1.0" encoding="UTF-8"?>\n$root);
}

# An element with its attributes, a list of names and values of which the undefined ones are left out, and its
# children, which are elements already.
sub element {
    my ($name, $attributes, @children) = @_;
    my $tag = tag($name, $attributes);
    return "<$tag/>\n" if !@children;
    my $inside = join '', @children;
    $inside =~ s/^/  /mg;
    return "<$tag>\n$inside</$name>\n";
}

# An element with nothing but text in it.
sub text_element {
    my ($name, $attributes, $text) = @_;
    return '<' . tag($name, $attributes) . '>' . escaped($text) . "</$name>\n";
}

sub tag {
    my ($name, $attributes) = @_;
    my $tag     = $name;
    my @remains = @$attributes;
    while (my ($attribute, $value) = splice @remains, 0, 2) {
        $tag .= sprintf ' %s="%s"', $attribute, escaped($value) if defined $value;
    }
    return $tag;
}

# Any bytes as text: what is not UTF-8, or no character of XML 1.0, becomes U+FFFD. Line ends are escaped too:
# a parser would replace them, and indentation would come after them.
sub escaped {
    my ($bytes) = @_;
    my $text = '';
    while ($bytes =~ /\G(?:(
          [\x09\x0A\x0D\x20-\x7F]
        | [\xC2-\xDF][\x80-\xBF]
        | \xE0[\xA0-\xBF][\x80-\xBF]
        | [\xE1-\xEC\xEE][\x80-\xBF]{2}
        | \xED[\x80-\x9F][\x80-\xBF]
        | \xEF(?:[\x80-\xBE][\x80-\xBF] | \xBF[\x80-\xBD])
        | \xF0[\x90-\xBF][\x80-\xBF]{2}
        | [\xF1-\xF3][\x80-\xBF]{3}
        | \xF4[\x80-\x8F][\x80-\xBF]{2}
        )|.)/gsx) {
        my $character = $1 // "\xEF\xBF\xBD";
        $character =~ s/([&<>"\x09\x0A\x0D])/'&#' . ord($1) . ';'/e;
        $text .= $character;
    }
    return $text;
}

1;
